#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/archive/FrontVector.h"
#include "orbiq/services/platform/archive/PageMemory.h"
#include "orbiq/services/platform/archive/PlistObjects.h"

namespace orbiq {

/// A binary property list that can be extended in front and cut at both ends, again and again,
/// without being encoded anew:
///
///     | frame | the blocks, the one that came last first | ending | padding | table of places |
///
/// The frame's objects keep their numbers; those of the others are adjusted when blocks come or go
/// before them. Cutting at the back leaves all bytes before the ending as they were.
///
/// A list is padded to whole blocks of a disk: a file that is overwritten by the next list then
/// seldom changes its length, which takes a disk longer than the writing.
class ExtendablePlist {
 public:
  /// How much there is of something in a run of objects.
  struct Extent {
    std::uint32_t bytes = 0;
    std::uint32_t objects = 0;
    std::uint32_t ownRefs = 0;
    std::uint32_t foreignRefs = 0;
    std::uint32_t uids = 0;

    static Extent of(const PlistObjects& objects);
    Extent& operator+=(const Extent& more);
    Extent operator-(const Extent& part) const;
  };

  /// Starts a new list, of the frame alone, which must be kept until the last `finish`.
  void begin(const PlistObjects& frame);

  /// Takes away the last objects. Nothing that stays may refer to them.
  void dropBack(const Extent& dropped);
  /// Puts the block in place of the first objects of the blocks. What stays may refer to a dropped
  /// object; `successors` has, for each of them, the number of the one in the block that stands for
  /// it now. UID values are numbered by their order, through all blocks. Beyond
  /// 65,535 objects, references of two bytes are left wrong.
  void replaceFront(const Extent& dropped, std::span<const PlistRef> successors,
                    const PlistObjects& block);

  /// What stays the same for an object while its number changes.
  std::uint32_t handleOf(PlistRef ref) const { return ref - _frameObjects + _firstHandle; }
  PlistRef refOf(std::uint32_t handle) const { return handle - _firstHandle + _frameObjects; }
  /// The number of the blocks' first object.
  PlistRef firstRef() const { return _frameObjects; }
  /// The number of the object behind the last one.
  PlistRef endRef() const { return _frameObjects + static_cast<PlistRef>(_places.size()); }
  /// Size of the frame and the blocks.
  std::size_t size() const { return _frame->bytes().size() + (_bytesEnd - _bytesBegin); }
  /// The bytes of memory that they have.
  std::size_t capacity() const { return _bytes.size(); }
  /// Whether references of that width can tell so many objects apart.
  static bool fits(std::size_t objectCount, PlistRefSize refSize);

  /// The list, with these objects behind all others. The bytes are valid until the next call of any
  /// of these. Throws `std::length_error` beyond 4 GiB.
  std::string_view finish(const PlistObjects& ending, PlistRef top);

 private:
  char* begin() { return _bytes.get() + _bytesBegin; }
  void makeRoom(std::size_t before, std::size_t behind);
  void renumber(const Extent& dropped, std::span<const PlistRef> successors,
                const PlistObjects& block);
  void prepend(const PlistObjects& block);
  char* putOffsets(char* place, std::size_t offsetSize, const PlistObjects& ending,
                   std::size_t endingAt);

  const PlistObjects* _frame = nullptr;
  PlistRef _frameObjects = 0;
  PageArray<char> _bytes;  ///< of the blocks, with room for the rest around them
  std::size_t _bytesBegin = 0;
  std::size_t _bytesEnd = 0;
  // These are counted from what never moves and need not be in the list.
  std::uint32_t _firstPosition = 0;
  std::uint32_t _firstHandle = 0;
  FrontVector<std::uint32_t> _places;  ///< where in the list each object begins
  FrontVector<std::uint32_t> _ownRefs;
  FrontVector<std::uint32_t> _foreignRefs;
  FrontVector<std::uint32_t> _uidNumbers;
  std::vector<std::uint32_t> _shifts;  ///< scratch
};

}  // namespace orbiq
