#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace orbiq {

/// The number of an object within a binary property list.
using PlistRef = std::uint32_t;

/// Width in bytes of the references among a list's objects.
enum class PlistRefSize : std::uint8_t { kTwo = 2, kFour = 4 };

/// Some of the objects of a binary property list, one after another, as the list has them. An array
/// or a dictionary is added after what it holds.
class PlistObjects {
 public:
  /// Forgets all; the next object's number will be `first`. If it is movable, that is, if its
  /// number may change, so are those behind it, and what refers to them is noted.
  void begin(PlistRefSize refSize, PlistRef first, bool isMovable = false);
  /// The next objects make a run of their own.
  void beginRun() { _runFirst = _first + static_cast<PlistRef>(_offsets.size()); }
  /// Forgets all, and gives memory back that only many objects need.
  void end();

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

  PlistRefSize refSize() const { return _refSize; }
  PlistRef first() const { return _first; }
  std::string_view bytes() const { return {_bytes.get(), _size}; }
  /// Where in the bytes each object begins.
  std::span<const std::uint32_t> offsets() const { return _offsets; }
  /// Where in the bytes the references to movable objects are: to those of the same run, which move
  /// together with what refers to them, and to others.
  std::span<const std::uint32_t> ownRefs() const { return _ownRefs; }
  std::span<const std::uint32_t> foreignRefs() const { return _foreignRefs; }
  /// Where in the bytes the numbers of the UID values are, as wide as references.
  std::span<const std::uint32_t> uidNumbers() const { return _uidNumbers; }

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

  // Not a std::string: what is about to be overwritten need not be cleared first.
  std::unique_ptr<char[]> _bytes;
  std::size_t _size = 0;
  std::size_t _capacity = 0;
  std::vector<std::uint32_t> _offsets;
  std::vector<std::uint32_t> _ownRefs;
  std::vector<std::uint32_t> _foreignRefs;
  std::vector<std::uint32_t> _uidNumbers;
  PlistRefSize _refSize = PlistRefSize::kTwo;
  PlistRef _first = 0;
  bool _isMovable = false;
  PlistRef _runFirst = 0;
};

}  // namespace orbiq
