#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/archive/PlistObjects.h"
#include "orbiq/services/platform/files/ChangedPages.h"

namespace orbiq {

/// The bytes of a keyed archive. Each part begins at a fixed byte, and an object keeps its number
/// and its place while it exists; only the references of the root array move up.
///
///     | UIDs | root array | object table | bytes of slots | long objects | offsets | trailer |
///                            7 of slot k    160 of slot k                  11 of slot k
///
/// Objects are numbered: first a UID for each entry of the object table (object n is the UID that
/// leads to entry n), then the root array, the object table, and 11 objects for each slot. A slot
/// owns its part of three rows: entries, offsets of objects, and bytes (320 where references take
/// four bytes). Of an object that is too long, only the bytes stand elsewhere.
///
/// Each addition or change begins a fresh slot, and takes another when one is full. A slot is free
/// again once all its entries and objects are. What is free leads to "$null".
class ArchiveLayout {
 public:
  struct Measure {
    std::size_t elements;   ///< that the root array has room for
    std::size_t longBytes;  ///< for objects that are too long for a slot
  };
  /// How many bytes all long objects need; 0 if it is slots, elements or an equal size that lack.
  struct NoRoom {
    std::size_t longBytes = 0;
  };

  // A slot takes what an ordinary request has for itself.
  static constexpr std::uint32_t kSlotEntries = 7;
  static constexpr std::uint32_t kSlotObjects = 11;
  static constexpr std::size_t slotBytes(std::size_t refSize) { return 80 * refSize; }
  /// Some more than elements: for names, and for what needs several.
  static constexpr std::size_t slotsFor(std::size_t elements) {
    return elements + elements / 8 + 16;
  }
  /// Where things begin. The UIDs begin at byte 8.
  struct Places {
    Places(std::size_t elements, std::size_t refSize);
    std::size_t rootArray;
    std::size_t rootElements;
    std::size_t table;
    std::size_t tableEntries;
    std::size_t slots;
    std::size_t longObjects;
  };

  /// Throws `std::length_error` beyond 4 GiB.
  explicit ArchiveLayout(const Measure& measure);

  /// The whole property list.
  const std::string& bytes() const { return _bytes; }
  /// What has changed since `pagesTaken`.
  const ChangedPages& changedPages() const { return _changed; }
  void pagesTaken() { _changed.clear(); }

  std::size_t refSize() const { return _refSize; }
  PlistRef entryCount() const { return static_cast<PlistRef>(kSlotEntries * _slots.size()); }
  bool isNearlyFull() const { return _free.size() < _slots.size() / 8; }
  /// Of long objects, freed ones too: their room is not used again.
  std::size_t longBytes() const { return _longBytes; }

  // The numbers of objects that are always there.
  static constexpr PlistRef kNullUid = 0;
  PlistRef rootArray() const { return entryCount(); }
  PlistRef table() const { return entryCount() + 1; }
  PlistRef firstSlotObject() const { return entryCount() + 2; }
  /// The dictionary at which readers begin.
  void setTop(PlistRef object) { put(_bytes.size() - 16, object, 8); }

  /// The next entry or object begins a fresh slot; `NoRoom` is thrown where there is none.
  void beginSlot() { _current = kNoSlot; }
  /// An entry of the object table, and the number of the UID that leads there.
  PlistRef takeEntry();
  void putEntry(PlistRef entry, PlistRef object);
  PlistRef objectOf(PlistRef entry) const;
  /// Puts an encoded object somewhere and returns its number. Any number of containers may refer to
  /// one that is for all; it is never freed.
  PlistRef place(std::string_view object, bool isForAll = false);
  /// Replaces a container by one of the same size; throws `NoRoom` if it is of another.
  void overwrite(PlistRef placed, std::string_view object);
  void freeEntry(PlistRef entry);
  void freeObject(PlistRef placed);

  /// What an array or a dictionary refers to: entries, by their UIDs, and objects. Its own objects,
  /// which are not for all, are freed with it.
  struct Refs {
    std::size_t at;
    std::size_t count;
  };
  Refs refsOf(PlistRef object) const;
  PlistRef ref(const Refs& refs, std::size_t index) const;
  bool isEntry(PlistRef ref) const { return ref < entryCount(); }
  bool isOwn(PlistRef object) const { return !_slots[slotOf(object)].isForAll; }

  // The root array, of UIDs.
  PlistRef element(std::size_t index) const;
  void appendElement(PlistRef uid);
  void removeElement(std::size_t index);

 private:
  struct Slot {
    std::uint16_t bytes = 0;
    std::uint8_t entries = 0;
    std::uint8_t objects = 0;
    std::uint8_t used = 0;  ///< entries and objects that are not free
    bool isForAll = false;
  };
  static constexpr std::uint32_t kNoSlot = UINT32_MAX;

  void fill();
  std::uint32_t slotOf(PlistRef placed) const {
    return (placed - firstSlotObject()) / kSlotObjects;
  }
  std::uint32_t takeSlot();
  void release(std::uint32_t slot);
  void putElementCount(std::size_t count);
  std::size_t placeOf(PlistRef object) const;
  void setPlace(PlistRef object, std::size_t place);
  std::uint32_t get(std::size_t at, std::size_t size) const;
  void put(std::size_t at, std::uint64_t number, std::size_t size);
  void write(std::size_t at, std::string_view bytes);

  Measure _measure;
  std::vector<Slot> _slots;
  std::vector<std::uint32_t> _free;  ///< the one that was freed last is taken first
  std::size_t _refSize;
  Places _at;
  std::size_t _offsetsAt;
  std::string _bytes;
  ChangedPages _changed;
  std::uint32_t _current = kNoSlot;
  std::uint32_t _forAll = kNoSlot;
  std::size_t _elementCount = 0;
  std::size_t _longBytes = 0;
};

}  // namespace orbiq
