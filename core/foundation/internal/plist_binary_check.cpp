#include "core/foundation/internal/plist_binary_check.h"

#include <algorithm>
#include <vector>

namespace harborkeeper::plist::internal {

bool isValidUtf8WithoutNul(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead == 0) return false;
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t length = 0;
    char32_t point = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2, point = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3, point = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4, point = lead & 0x07;
    } else {
      return false;
    }
    if (text.size() - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      point = (point << 6) | (next & 0x3F);
    }
    const bool overlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
    if (overlong || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

std::uint64_t readBigEndian(std::string_view bytes, std::uint64_t at, unsigned size) {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < size; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

std::optional<BinaryLayout> readBinaryLayout(std::string_view bytes) {
  constexpr std::size_t kTrailerSize = 32;
  if (bytes.size() < kBinaryMagic.size() + 1 + kTrailerSize || !bytes.starts_with(kBinaryMagic)) {
    return std::nullopt;
  }
  const std::uint64_t trailer = bytes.size() - kTrailerSize;
  BinaryLayout layout{bytes,
                      static_cast<unsigned char>(bytes[trailer + 6]),
                      static_cast<unsigned char>(bytes[trailer + 7]),
                      readBigEndian(bytes, trailer + 8, 8),
                      readBigEndian(bytes, trailer + 16, 8),
                      readBigEndian(bytes, trailer + 24, 8)};
  const bool sizesValid = layout.offsetSize >= 1 && layout.offsetSize <= 8 && layout.referenceSize >= 1 &&
                          layout.referenceSize <= 8;
  if (!sizesValid || layout.objectCount == 0 || layout.topObject >= layout.objectCount ||
      layout.tableOffset <= kBinaryMagic.size() || layout.tableOffset > trailer ||
      layout.objectCount > (trailer - layout.tableOffset) / layout.offsetSize) {
    return std::nullopt;
  }
  return layout;
}

std::optional<std::uint64_t> objectOffset(const BinaryLayout& layout, std::uint64_t index) {
  const std::uint64_t offset =
      readBigEndian(layout.bytes, layout.tableOffset + index * layout.offsetSize, layout.offsetSize);
  if (offset < kBinaryMagic.size() || offset >= layout.tableOffset) return std::nullopt;
  return offset;
}

namespace {

// Keeps, for each object, whether the walk has entered or left it and what its
// expanded subtree costs, so a shared object is costed once however often it
// is referenced.
class BinaryShapeCheck final {
 public:
  explicit BinaryShapeCheck(const BinaryLayout& layout)
      : layout_(layout), state_(layout.objectCount, State::unseen), cost_(layout.objectCount) {}

  bool run() {
    if (!enter(layout_.topObject)) return false;
    while (!stack_.empty()) {
      Frame& frame = stack_.back();
      if (frame.next == frame.shape.referenceCount) {
        if (!leave()) return false;
        continue;
      }
      const std::uint64_t child =
          readBigEndian(layout_.bytes, frame.shape.referencesAt + frame.next * layout_.referenceSize,
                        layout_.referenceSize);
      const bool isKey = frame.next < frame.shape.keyCount;
      ++frame.next;
      if (child >= layout_.objectCount || state_[child] == State::open) return false;
      if (isKey && !isString(child)) return false;
      if (state_[child] == State::unseen && !enter(child)) return false;
      if (state_[child] == State::done && !add(stack_.back().sum, cost_[child])) return false;
    }
    return true;
  }

 private:
  enum class State : std::uint8_t { unseen, open, done };
  struct Shape {
    bool container = false;
    std::uint64_t referencesAt = 0;
    std::uint64_t referenceCount = 0;  // keys and values of a dictionary
    std::uint64_t keyCount = 0;        // the leading references that must be strings
    std::uint64_t payload = 0;
  };
  struct Cost {
    std::uint64_t depth = 0;
    std::uint64_t values = 0;
    std::uint64_t payload = 0;
  };
  struct Frame {
    std::uint64_t index;
    Shape shape;
    std::uint64_t next = 0;
    Cost sum;
  };

  static bool add(Cost& sum, const Cost& child) {
    sum.depth = std::max(sum.depth, child.depth);
    sum.values += child.values;
    sum.payload += child.payload;
    return sum.values <= kMaxValues && sum.payload <= kMaxPayloadBytes;
  }

  unsigned char byteAt(std::uint64_t at) const { return static_cast<unsigned char>(layout_.bytes[at]); }

  bool containsNul(std::uint64_t at, std::uint64_t length, unsigned unit) const {
    for (std::uint64_t i = 0; i < length; i += unit) {
      if (readBigEndian(layout_.bytes, at + i, unit) == 0) return true;
    }
    return false;
  }

  bool isString(std::uint64_t index) const {
    const auto offset = objectOffset(layout_, index);
    return offset && (byteAt(*offset) >> 4 == 0x5 || byteAt(*offset) >> 4 == 0x6);
  }

  // The count is the marker's low nibble or, at 0xF, an integer object after it.
  bool readCount(std::uint64_t& at, unsigned nibble, std::uint64_t& count) const {
    if (nibble != 0xF) {
      count = nibble;
      return true;
    }
    if (at >= layout_.tableOffset) return false;
    const unsigned marker = byteAt(at++);
    if ((marker >> 4) != 0x1 || (marker & 0xF) > 3) return false;
    const unsigned size = 1U << (marker & 0xF);
    if (layout_.tableOffset - at < size) return false;
    count = readBigEndian(layout_.bytes, at, size);
    at += size;
    return true;
  }

  std::optional<Shape> readShape(std::uint64_t offset) const {
    const unsigned marker = byteAt(offset);
    const unsigned kind = marker >> 4;
    const unsigned nibble = marker & 0xF;
    std::uint64_t at = offset + 1;
    std::uint64_t count = 0;
    Shape shape;
    switch (kind) {
      case 0x0:  // only false and true; null and fill are no values
        if (nibble != 0x8 && nibble != 0x9) return std::nullopt;
        break;
      case 0x1:  // integer
      case 0x2:  // real
        if (nibble > 4) return std::nullopt;
        shape.payload = std::uint64_t{1} << nibble;
        break;
      case 0x3:
        if (marker != 0x33) return std::nullopt;
        shape.payload = 8;
        break;
      case 0x4:  // data
      case 0x5:  // ASCII string
      case 0x6:  // UTF-16 string
        if (!readCount(at, nibble, count) || count > layout_.tableOffset) return std::nullopt;
        shape.payload = kind == 0x6 ? count * 2 : count;
        break;
      case 0xA:  // array
      case 0xD:  // dictionary
        if (!readCount(at, nibble, count)) return std::nullopt;
        if (kind == 0xD && count > kMaxDictionaryEntries) return std::nullopt;
        shape.container = true;
        shape.referencesAt = at;
        shape.referenceCount = kind == 0xD ? count * 2 : count;
        shape.keyCount = kind == 0xD ? count : 0;
        if (shape.referenceCount > (layout_.tableOffset - at) / layout_.referenceSize) return std::nullopt;
        return shape;
      default:  // UIDs, sets and unassigned markers
        return std::nullopt;
    }
    if (shape.payload > layout_.tableOffset - at) return std::nullopt;
    // libplist would cut a string at a NUL without a word.
    if ((kind == 0x5 && containsNul(at, shape.payload, 1)) ||
        (kind == 0x6 && containsNul(at, shape.payload, 2))) {
      return std::nullopt;
    }
    return shape;
  }

  bool enter(std::uint64_t index) {
    const auto offset = objectOffset(layout_, index);
    const auto shape = offset ? readShape(*offset) : std::nullopt;
    if (!shape) return false;
    if (!shape->container) {
      state_[index] = State::done;
      cost_[index] = Cost{0, 1, shape->payload};
      return cost_[index].payload <= kMaxPayloadBytes;
    }
    if (stack_.size() >= kMaxDepth) return false;
    state_[index] = State::open;
    stack_.push_back(Frame{index, *shape, 0, Cost{}});
    return true;
  }

  bool leave() {
    const Frame frame = stack_.back();
    stack_.pop_back();
    const Cost cost{frame.sum.depth + 1, frame.sum.values + 1, frame.sum.payload};
    if (cost.depth > kMaxDepth || cost.values > kMaxValues) return false;
    state_[frame.index] = State::done;
    cost_[frame.index] = cost;
    return stack_.empty() || add(stack_.back().sum, cost);
  }

  const BinaryLayout& layout_;
  std::vector<State> state_;
  std::vector<Cost> cost_;
  std::vector<Frame> stack_;
};

}  // namespace

bool binaryShapeIsAcceptable(std::string_view bytes) {
  const auto layout = readBinaryLayout(bytes);
  return layout && BinaryShapeCheck(*layout).run();
}

}  // namespace harborkeeper::plist::internal
