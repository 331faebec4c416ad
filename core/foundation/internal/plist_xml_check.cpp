#include "core/foundation/internal/plist_xml_check.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/foundation/internal/plist_binary_check.h"
#include "core/foundation/internal/plist_xml_values.h"

namespace harborkeeper::plist::internal {
namespace {

// A single pass over the document: an optional declaration, comments and a
// DOCTYPE without internal subset, then one <plist> element holding one value.
// Elements must nest and match, dictionaries alternate key and value, leaves
// hold valid text, entities are the predefined ones or character references.
// Markup that another reader could split differently (quotes holding "<" or
// ">", processing instructions after the prolog) is refused.
class XmlShapeCheck final {
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
    explicit Frame(Kind elementKind) : kind(elementKind) {}
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
    if (digits.empty() || error != std::errc() || stop != digits.data() + digits.size() || !valid) {
      return false;
    }
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
      return finished(Frame(*kind));
    }
    if (!lookingAt(">")) return false;
    ++pos_;
    if (isContainer(*kind)) ++containers_;
    stack_.emplace_back(*kind);
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

}  // namespace

bool xmlShapeIsAcceptable(std::string_view text) { return XmlShapeCheck(text).run(); }

}  // namespace harborkeeper::plist::internal
