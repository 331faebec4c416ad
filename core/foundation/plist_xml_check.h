#pragma once

// libplist 2.2 reads XML leniently ("abc" as integer 0, an unparsable date as
// 1970, text after a quoted ">" in an attribute as content) and recurses per
// nesting level. This check accepts only a well-formed property-list document
// within the limits, so what libplist then parses is what was checked.
// Private to plist.cpp.

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/foundation/plist_binary_check.h"

namespace harborkeeper::plist::detail {

// ---- XML leaf values -------------------------------------------------------

inline bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

inline std::string_view trimmedXmlSpace(std::string_view text) {
  while (!text.empty() && isXmlSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isXmlSpace(text.back())) text.remove_suffix(1);
  return text;
}

inline bool isDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Decimal only, within the signed 64-bit range (libplist would clamp).
inline bool isValidXmlInteger(std::string_view text) {
  text = trimmedXmlSpace(text);
  const bool negative = !text.empty() && text.front() == '-';
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  std::uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  const std::uint64_t limit = std::uint64_t{1} << 63;
  return isDigits(text) && error == std::errc() && end == text.data() + text.size() &&
         (negative ? magnitude <= limit : magnitude < limit);
}

inline bool isValidXmlReal(std::string_view text) {
  text = trimmedXmlSpace(text);
  if (text == "nan" || text == "+infinity" || text == "-infinity") return true;
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  const auto exponent = text.find_first_of("eE");
  std::string_view mantissa = text.substr(0, exponent);
  if (exponent != std::string_view::npos) {
    std::string_view power = text.substr(exponent + 1);
    if (!power.empty() && (power.front() == '-' || power.front() == '+')) power.remove_prefix(1);
    if (!isDigits(power)) return false;
  }
  const auto point = mantissa.find('.');
  if (point == std::string_view::npos) return isDigits(mantissa);
  const auto whole = mantissa.substr(0, point);
  const auto fraction = mantissa.substr(point + 1);
  return (isDigits(whole) || whole.empty()) && (isDigits(fraction) || fraction.empty()) &&
         !(whole.empty() && fraction.empty());
}

// Exactly "YYYY-MM-DDTHH:MM:SSZ", a real calendar day.
inline bool isValidXmlDate(std::string_view text) {
  constexpr std::string_view kPattern = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != kPattern.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool ok = kPattern[i] == 'd' ? (text[i] >= '0' && text[i] <= '9') : text[i] == kPattern[i];
    if (!ok) return false;
  }
  const auto number = [&](std::size_t at, std::size_t length) {
    int value = 0;
    for (std::size_t i = at; i < at + length; ++i) value = value * 10 + (text[i] - '0');
    return value;
  };
  const std::chrono::year_month_day day{std::chrono::year(number(0, 4)),
                                        std::chrono::month(static_cast<unsigned>(number(5, 2))),
                                        std::chrono::day(static_cast<unsigned>(number(8, 2)))};
  return day.ok() && number(11, 2) < 24 && number(14, 2) < 60 && number(17, 2) < 60;
}

// Padded base64, white space allowed anywhere.
inline bool isValidXmlData(std::string_view text) {
  std::size_t count = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    if (isXmlSpace(c)) continue;
    const bool alphabet =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
    if (c == '=') {
      ++padding;
    } else if (!alphabet || padding > 0) {
      return false;
    }
    ++count;
  }
  return count % 4 == 0 && padding <= 2;
}

// ---- XML document ---------------------------------------------------------

// A single pass over the document: an optional declaration, comments and a
// DOCTYPE without internal subset, then one <plist> element holding one value.
// Elements must nest and match, dictionaries alternate key and value, leaves
// hold valid text, entities are the predefined ones or character references.
// Markup that another reader could split differently (quotes holding "<" or
// ">", processing instructions after the prolog) is refused.
class XmlShapeCheck {
 public:
  explicit XmlShapeCheck(std::string_view text) : text_(text) {}

  bool run() {
    if (text_.find('\0') != std::string_view::npos || !skipMisc(true) || !lookingAt("<plist")) return false;
    if (!startTag()) return false;
    while (!stack_.empty()) {
      if (!step()) return false;
    }
    return skipMisc(false) && pos_ == text_.size();
  }

 private:
  enum class Kind { plist, array, dict, key, string, integer, real, date, data, trueValue, falseValue };
  struct Frame {
    Kind kind;
    std::uint64_t children = 0;
    std::string text;  // kept only for leaves whose text is checked
  };

  static std::optional<Kind> kindNamed(std::string_view name) {
    constexpr std::pair<std::string_view, Kind> kNames[] = {
        {"plist", Kind::plist},    {"array", Kind::array},     {"dict", Kind::dict},
        {"key", Kind::key},        {"string", Kind::string},   {"integer", Kind::integer},
        {"real", Kind::real},      {"date", Kind::date},       {"data", Kind::data},
        {"true", Kind::trueValue}, {"false", Kind::falseValue}};
    for (const auto& [known, kind] : kNames) {
      if (known == name) return kind;
    }
    return std::nullopt;
  }
  static bool isContainer(Kind kind) { return kind == Kind::array || kind == Kind::dict; }
  static bool isLeaf(Kind kind) { return kind != Kind::plist && !isContainer(kind); }
  static bool keepsText(Kind kind) { return isLeaf(kind) && kind != Kind::string && kind != Kind::key; }

  bool lookingAt(std::string_view prefix) const { return text_.substr(pos_).starts_with(prefix); }
  void skipSpace() {
    while (pos_ < text_.size() && isXmlSpace(text_[pos_])) ++pos_;
  }
  // Moves past `terminator`; the skipped text must not hold any of `forbidden`.
  bool skipPast(std::string_view terminator, std::string_view forbidden) {
    const auto end = text_.find(terminator, pos_);
    if (end == std::string_view::npos) return false;
    if (text_.substr(pos_, end - pos_).find_first_of(forbidden) != std::string_view::npos) return false;
    pos_ = end + terminator.size();
    return true;
  }

  // White space, comments and, in the prolog, the declaration and a DOCTYPE.
  bool skipMisc(bool prolog) {
    for (;;) {
      skipSpace();
      if (lookingAt("<!--")) {
        if (!comment()) return false;
      } else if (prolog && lookingAt("<?")) {
        pos_ += 2;
        if (!skipPast("?>", "<>")) return false;
      } else if (prolog && !doctypeSeen_ && lookingAt("<!DOCTYPE")) {
        doctypeSeen_ = true;
        if (!doctype()) return false;
      } else {
        return true;
      }
    }
  }

  bool doctype() {
    for (pos_ += 9; pos_ < text_.size(); ++pos_) {
      const char c = text_[pos_];
      if (c == '>') return ++pos_, true;
      if (c == '[' || c == '<') return false;
      if (c == '"' || c == '\'') {
        ++pos_;
        if (!skipPast(std::string_view(&c, 1), "<>[")) return false;
        --pos_;
      }
    }
    return false;
  }

  bool comment() {
    pos_ += 4;
    const auto end = text_.find("--", pos_);
    if (end == std::string_view::npos || end + 2 >= text_.size() || text_[end + 2] != '>') return false;
    pos_ = end + 3;
    return true;
  }

  bool cdata() {
    pos_ += 9;
    const auto end = text_.find("]]>", pos_);
    if (end == std::string_view::npos) return false;
    Frame& frame = stack_.back();
    if (keepsText(frame.kind)) frame.text.append(text_.substr(pos_, end - pos_));
    pos_ = end + 3;
    return true;
  }

  bool step() {
    const Kind kind = stack_.back().kind;
    if (isLeaf(kind)) {
      if (!characterData()) return false;
    } else {
      skipSpace();
    }
    if (pos_ >= text_.size() || text_[pos_] != '<') return false;
    if (lookingAt("<!--")) return comment();
    if (lookingAt("<![CDATA[")) return isLeaf(kind) && cdata();
    if (lookingAt("</")) return endTag();
    if (lookingAt("<?") || lookingAt("<!")) return false;
    return startTag();
  }

  bool characterData() {
    Frame& frame = stack_.back();
    const bool keep = keepsText(frame.kind);
    while (pos_ < text_.size() && text_[pos_] != '<') {
      if (text_[pos_] == '&') {
        if (!entity(keep ? &frame.text : nullptr)) return false;
        continue;
      }
      const auto end = std::min(text_.find_first_of("<&", pos_), text_.size());
      if (keep) frame.text.append(text_.substr(pos_, end - pos_));
      pos_ = end;
    }
    return true;
  }

  bool entity(std::string* out) {
    const auto end = text_.find(';', pos_);
    if (end == std::string_view::npos || end - pos_ > 10) return false;
    const std::string_view name = text_.substr(pos_ + 1, end - pos_ - 1);
    pos_ = end + 1;
    constexpr std::pair<std::string_view, char> kPredefined[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& [known, c] : kPredefined) {
      if (name == known) {
        if (out) out->push_back(c);
        return true;
      }
    }
    if (!name.starts_with('#')) return false;
    const bool hex = name.size() > 1 && name[1] == 'x';
    const std::string_view digits = name.substr(hex ? 2 : 1);
    std::uint32_t point = 0;
    const auto [stop, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), point, hex ? 16 : 10);
    const bool valid = point == 0x9 || point == 0xA || point == 0xD || (point >= 0x20 && point <= 0xD7FF) ||
                       (point >= 0xE000 && point <= 0xFFFD) || (point >= 0x10000 && point <= 0x10FFFF);
    if (digits.empty() || error != std::errc() || stop != digits.data() + digits.size() || !valid)
      return false;
    if (out) out->push_back(point < 0x80 ? static_cast<char>(point) : '?');  // only ASCII matters to leaves
    return true;
  }

  std::string_view tagName() {
    const auto start = pos_;
    while (pos_ < text_.size() &&
           ((text_[pos_] >= 'a' && text_[pos_] <= 'z') || (text_[pos_] >= 'A' && text_[pos_] <= 'Z'))) {
      ++pos_;
    }
    return text_.substr(start, pos_ - start);
  }

  // Attributes are only expected on <plist>: name="value" without markup in the value.
  bool attributes() {
    for (;;) {
      const auto before = pos_;
      skipSpace();
      if (lookingAt(">") || lookingAt("/>")) return true;
      if (pos_ == before || tagName().empty()) return false;
      skipSpace();
      if (!lookingAt("=")) return false;
      ++pos_;
      skipSpace();
      if (pos_ >= text_.size() || (text_[pos_] != '"' && text_[pos_] != '\'')) return false;
      const char quote = text_[pos_++];
      if (!skipPast(std::string_view(&quote, 1), "<>&")) return false;
    }
  }

  // Whether the open element takes `kind` as its next child; counts it.
  bool admit(Kind kind) {
    if (stack_.empty()) return kind == Kind::plist;
    Frame& parent = stack_.back();
    switch (parent.kind) {
      case Kind::plist:
        if (parent.children > 0 || kind == Kind::key) return false;
        break;
      case Kind::array:
        if (kind == Kind::key) return false;
        break;
      case Kind::dict:
        if ((parent.children % 2 == 0) != (kind == Kind::key)) return false;
        if (parent.children >= 2 * kMaxDictionaryEntries) return false;
        break;
      default:
        return false;
    }
    if (kind == Kind::plist) return false;
    ++parent.children;
    if (kind != Kind::key && ++values_ > kMaxValues) return false;
    return !isContainer(kind) || containers_ < kMaxDepth;
  }

  bool startTag() {
    ++pos_;
    const auto kind = kindNamed(tagName());
    if (!kind || !admit(*kind)) return false;
    if (*kind == Kind::plist) {
      if (!attributes()) return false;
    } else {
      skipSpace();
    }
    if (lookingAt("/>")) {
      pos_ += 2;
      return finished(Frame{*kind, 0, {}});
    }
    if (!lookingAt(">")) return false;
    ++pos_;
    if (isContainer(*kind)) ++containers_;
    stack_.push_back(Frame{*kind, 0, {}});
    return true;
  }

  bool endTag() {
    pos_ += 2;
    const auto kind = kindNamed(tagName());
    skipSpace();
    if (!kind || *kind != stack_.back().kind || !lookingAt(">")) return false;
    ++pos_;
    const Frame frame = std::move(stack_.back());
    stack_.pop_back();
    if (isContainer(frame.kind)) --containers_;
    return finished(frame);
  }

  static bool finished(const Frame& frame) {
    switch (frame.kind) {
      case Kind::plist:
        return frame.children == 1;
      case Kind::dict:
        return frame.children % 2 == 0;
      case Kind::integer:
        return isValidXmlInteger(frame.text);
      case Kind::real:
        return isValidXmlReal(frame.text);
      case Kind::date:
        return isValidXmlDate(frame.text);
      case Kind::data:
        return isValidXmlData(frame.text);
      case Kind::trueValue:
      case Kind::falseValue:
        return frame.text.empty();
      default:
        return true;
    }
  }

  std::string_view text_;
  std::size_t pos_ = 0;
  std::vector<Frame> stack_;
  std::size_t containers_ = 0;
  std::uint64_t values_ = 0;
  bool doctypeSeen_ = false;
};

inline bool xmlShapeIsAcceptable(std::string_view text) { return XmlShapeCheck(text).run(); }

}  // namespace harborkeeper::plist::detail
