#pragma once

#include <string_view>

// The text a property-list XML leaf element may hold. libplist 2.2 would read
// anything else leniently (as 0, as 1970, clamped) instead of refusing it.
namespace harborkeeper::plist::internal {

bool isXmlSpace(char c);

// Decimal only, within the signed 64-bit range; white space around it allowed.
bool isValidXmlInteger(std::string_view text);

// Decimal with optional fraction and exponent, or "nan", "+infinity",
// "-infinity"; white space around it allowed.
bool isValidXmlReal(std::string_view text);

// Exactly "YYYY-MM-DDTHH:MM:SSZ", a real calendar day within what a Date can
// hold (a later range check refuses the rest of those anyway).
bool isValidXmlDate(std::string_view text);

// Padded base64, white space allowed anywhere.
bool isValidXmlData(std::string_view text);

}  // namespace harborkeeper::plist::internal
