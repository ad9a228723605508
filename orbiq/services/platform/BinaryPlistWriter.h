#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace orbiq {

/// The number of an object within a binary property list.
using PlistRef = std::uint32_t;

/// Writes a binary property list, object by object, into one buffer that is kept for the next list.
/// An array or a dictionary is added after what it holds.
class BinaryPlistWriter {
 public:
  /// Width in bytes of the references among objects.
  enum class RefSize : std::uint8_t { kTwo = 2, kFour = 4 };

  /// Starts a new list and forgets the last one.
  void begin(RefSize refSize);

  PlistRef addBoolean(bool value);
  PlistRef addInteger(std::int64_t number);
  PlistRef addUnsigned(std::uint64_t number);
  PlistRef addReal(double number);
  /// UTF-8 text; malformed bytes are written as U+FFFD.
  PlistRef addText(std::string_view text);
  /// A UID value, as keyed archives use them.
  PlistRef addUid(std::uint32_t uid);
  PlistRef addArray(std::span<const PlistRef> elements);
  /// As many keys as values.
  PlistRef addDictionary(std::span<const PlistRef> keys, std::span<const PlistRef> values);

  /// False once there are more objects than the references can tell apart: what was written is then
  /// worthless and has to be written again with wider ones.
  bool fits() const;
  /// Completes the list. The bytes are valid until the next `begin`.
  std::string_view finish(PlistRef top);

 private:
  /// Makes room for `count` bytes more and hands it out to be filled.
  char* grow(std::size_t count) {
    if (count > _capacity - _size) enlarge(count);
    _size += count;
    return _bytes.get() + (_size - count);
  }
  void enlarge(std::size_t count);
  PlistRef beginObject();
  void putHead(unsigned kind, std::size_t count);
  void putInteger(std::uint64_t number);
  void putUtf16(std::string_view text);
  void putRefs(std::span<const PlistRef> refs);
  template <std::size_t kSize>
  void putOffsets();

  // Not a std::string: what is about to be overwritten need not be cleared first.
  std::unique_ptr<char[]> _bytes;
  std::size_t _size = 0;
  std::size_t _capacity = 0;
  std::vector<std::uint64_t> _offsets;  ///< of each object, by its number
  RefSize _refSize = RefSize::kTwo;
  std::array<PlistRef, 2> _booleans{};
  std::array<PlistRef, 256> _smallIntegers{};
};

}  // namespace orbiq
