#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/archive/Archivable.h"
#include "orbiq/services/platform/archive/PlistObjects.h"
#include "orbiq/services/platform/files/ChangedPages.h"

namespace orbiq {

/// What the objects of an archive name again and again: it stands in the archive once.
struct ArchiveVocabulary {
  std::vector<std::string_view> names;  ///< of classes and fields; literals
  std::vector<const ArchivedClass*> classes;

  // The indices of what stands first in each.
  enum : std::size_t { kClass, kKeys, kObjects, kTime };
  enum : std::size_t { kArray, kDictionary, kDate };

  ArchiveVocabulary();
  /// The name's index; `names.size()` for one that is not there. Fastest from the last one on.
  std::size_t indexOf(std::string_view name, std::size_t from) const;
  void addClass(const ArchivedClass& archivedClass);
};

/// The bytes of a keyed archive, laid out once, so that no number and no place ever moves:
///
///     | root array | vocabulary | object table | UIDs | slots | long objects | places | trailer |
///
/// A slot is a run of UIDs, of object numbers and of bytes. Whatever is encoded together begins a
/// fresh slot and goes on in another one where that is full; the slot is free again when nothing in
/// it is left. Free numbers lead to "$null", and so do free UIDs.
class ArchiveLayout {
 public:
  struct Measure {
    std::size_t elements;   ///< of the root array, at most; the slots are some more
    std::size_t longBytes;  ///< for objects that are too long for a slot
  };
  struct NoRoom {};

  // What finds the objects of a damaged file again: the numbers of two, and the measures.
  static constexpr PlistRef kRootArray = 9;
  static constexpr PlistRef kTable = 10;
  static constexpr std::size_t kArrayHeadSize = 6;
  // A slot takes what an ordinary request has for itself.
  static constexpr std::uint32_t kSlotUids = 7;
  static constexpr std::uint32_t kSlotObjects = 11;
  static constexpr std::size_t slotsFor(std::size_t elements) {
    return elements + elements / 8 + 4;
  }
  static constexpr std::size_t slotBytes(std::size_t refSize) { return 80 * refSize; }

  /// Throws `std::length_error` beyond 4 GiB.
  ArchiveLayout(const ArchiveVocabulary& vocabulary, const Measure& measure);

  /// The whole property list.
  const std::string& bytes() const { return _bytes; }
  /// What has changed since `pagesTaken`.
  const ChangedPages& changedPages() const { return _changed; }
  void pagesTaken() { _changed.clear(); }

  std::size_t refSize() const { return _refSize; }
  /// How many entries the object table has.
  std::size_t entryCount() const { return _firstSlotEntry + kSlotUids * _slots.size(); }
  std::size_t slotCount() const { return _slots.size(); }
  std::size_t freeSlotCount() const { return _free.size(); }
  /// So many bytes of long objects were placed, in vain if there is no room for them.
  std::size_t longBytes() const { return _longBytes; }
  bool lacksLongBytes() const { return _longBytes > _measure.longBytes; }

  // The numbers of objects that are always there.
  static constexpr PlistRef kNullUid = 1;
  static constexpr std::int64_t kSmallIntegers = 4;
  static PlistRef booleanRef(bool value);
  static PlistRef smallIntegerRef(std::int64_t number);
  static PlistRef nameRef(std::size_t index);
  PlistRef classUidRef(std::size_t index) const;

  /// The next UID or object begins a fresh slot; `NoRoom` is thrown where there is none.
  void beginSlot() { _current = kNoSlot; }
  /// An entry of the object table; until it is set it leads to "$null".
  std::uint32_t takeEntry();
  void putEntry(std::uint32_t entry, PlistRef object);
  PlistRef objectOf(std::uint32_t entry) const;
  /// The number of the UID that leads to the entry.
  PlistRef uidRef(std::uint32_t entry) const;
  /// Puts an encoded object somewhere and returns its number.
  PlistRef place(std::string_view object);
  /// Writes a container over one; throws `NoRoom` if that is of another size.
  void overwrite(PlistRef placed, std::string_view object);
  void freeEntry(std::uint32_t entry);
  void freeObject(PlistRef placed);

  /// What an array or a dictionary refers to.
  struct Refs {
    std::size_t at;
    std::size_t count;
  };
  Refs refsOf(PlistRef object) const;
  PlistRef ref(const Refs& refs, std::size_t index) const;
  bool isPlaced(PlistRef ref) const { return ref >= _firstNumber; }
  /// Of those, UIDs; the others are objects.
  bool isUid(PlistRef placed) const;
  std::uint32_t entryOf(PlistRef uidRef) const;

  // The root array, of UIDs.
  std::size_t elementCount() const { return _elementCount; }
  std::uint32_t element(std::size_t index) const;
  void appendElement(PlistRef uid);
  void removeElement(std::size_t index);

 private:
  static constexpr std::uint32_t kSlotNumbers = kSlotUids + kSlotObjects;

  struct Slot {
    std::uint16_t bytes = 0;
    std::uint8_t uids = 0;
    std::uint8_t objects = 0;
    std::uint8_t used = 0;  ///< UIDs and objects that are not free
  };
  static constexpr std::uint32_t kNoSlot = UINT32_MAX;

  void addVocabulary(const ArchiveVocabulary& vocabulary, PlistObjects& objects,
                     std::vector<std::size_t>& places);
  void addEnding(PlistObjects& objects, std::vector<std::size_t>& places);
  void fill(const std::vector<std::size_t>& places);

  std::uint32_t slotOf(PlistRef placed) const;
  void takeSlot();
  void release(std::uint32_t slot);
  void putElementCount(std::size_t count);
  std::size_t placeOf(PlistRef object) const;
  void setPlace(PlistRef object, std::size_t place);
  std::uint32_t get(std::size_t at, std::size_t size) const;
  void put(std::size_t at, std::uint64_t number, std::size_t size);

  Measure _measure;
  std::size_t _refSize = 2;
  std::string _bytes;
  ChangedPages _changed;
  std::vector<Slot> _slots;
  std::vector<std::uint32_t> _free;  ///< the one that was freed last is taken first
  std::uint32_t _current = kNoSlot;
  std::size_t _elementCount = 0;
  std::size_t _longBytes = 0;
  // Where things begin: numbers, and places.
  PlistRef _firstClass = 0;
  PlistRef _firstNumber = 0;  ///< of the first slot
  std::uint32_t _firstSlotEntry = 0;
  std::size_t _rootAt = 0;
  std::size_t _tableAt = 0;
  std::size_t _uidsAt = 0;
  std::size_t _slotsAt = 0;
  std::size_t _longAt = 0;
  std::size_t _placesAt = 0;
};

extern const ArchivedClass kArchivedArray, kArchivedDictionary, kArchivedDate;

}  // namespace orbiq
