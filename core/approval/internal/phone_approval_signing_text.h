#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

// The canonical texts both signers sign.
namespace harborkeeper::internal {

// ASCII letters only: an HTTP method is a token, and a locale must not
// change what gets signed.
inline std::string upperASCII(std::string_view text) {
  std::string upper(text);
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return upper;
}

// Joined by "\n", with none after the last line.
inline std::string joinLines(std::initializer_list<std::string_view> lines) {
  std::string joined;
  bool first = true;
  for (const std::string_view line : lines) {
    if (!first) joined += '\n';
    joined.append(line);
    first = false;
  }
  return joined;
}

}  // namespace harborkeeper::internal
