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
///
/// A list is padded to whole blocks of a disk, between its objects and the table of their places: a
/// file that is overwritten by the next list then seldom changes its length, which takes a disk
/// longer than the writing.
class BinaryPlistWriter {
 public:
  /// Width in bytes of the references among objects.
  enum class RefSize : std::uint8_t { kTwo = 2, kFour = 4 };

  /// Starts a new list and forgets the last one.
  void begin(RefSize refSize);

  PlistRef addBoolean(bool value);
  PlistRef addInteger(std::int64_t number);
  PlistRef addReal(double number);
  /// UTF-8 text; malformed bytes are written as U+FFFD.
  PlistRef addText(std::string_view text);
  /// A UID value, as keyed archives use them.
  PlistRef addUid(std::uint32_t uid);
  PlistRef addArray(std::span<const PlistRef> elements);
  /// As many keys as values.
  PlistRef addDictionary(std::span<const PlistRef> keys, std::span<const PlistRef> values);

  /// A place among the objects.
  struct Mark {
    std::size_t size;
    PlistRef objectCount;
  };
  Mark mark() const { return {_size, static_cast<PlistRef>(_offsets.size())}; }
  /// Forgets what was added behind the mark, to end the list otherwise. Only arrays and
  /// dictionaries may be added before the next `begin`.
  void rewind(const Mark& mark);

  RefSize refSize() const { return _refSize; }
  /// Whether references of that width can tell so many objects apart. If they cannot, the list is
  /// worthless and has to be written again with wider ones.
  static bool fits(std::size_t objectCount, RefSize refSize);
  /// Completes the list; it can be rewound. The bytes are valid until the next call of any of
  /// these. Throws `std::length_error` beyond 4 GiB.
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
  void putOffsets(std::size_t offsetSize);

  // Not a std::string: what is about to be overwritten need not be cleared first.
  std::unique_ptr<char[]> _bytes;
  std::size_t _size = 0;
  std::size_t _capacity = 0;
  std::vector<std::uint32_t> _offsets;  ///< of each object, by its number, as the list has them
  RefSize _refSize = RefSize::kTwo;
  std::array<PlistRef, 2> _booleans{};
  std::array<PlistRef, 256> _smallIntegers{};
};

}  // namespace orbiq
