#include "orbiq/services/platform/archive/ArchiveLayout.h"

#include <cstring>
#include <stdexcept>

#include "orbiq/services/platform/archive/BigEndian.h"
#include "orbiq/services/platform/archive/BinaryPlistReader.h"

namespace orbiq {
namespace {

constexpr std::size_t kOffsetSize = 4;
constexpr std::size_t kCountSize = 4;
/// Before the elements of an array whose count may grow in its place.
constexpr std::size_t kArrayHeadSize = 2 + kCountSize;

/// The UIDs, the root array, the object table, and what the slots hold.
std::uint64_t numbersFor(std::size_t elements) {
  constexpr std::uint64_t kSlotNumbers = ArchiveLayout::kSlotEntries + ArchiveLayout::kSlotObjects;
  return 2 + kSlotNumbers * ArchiveLayout::slotsFor(elements);
}

}  // namespace

ArchiveLayout::Places::Places(std::size_t elements, std::size_t refSize) {
  const std::size_t entries = kSlotEntries * slotsFor(elements);
  rootArray = kPlistMagic.size() + (1 + refSize) * entries;
  rootElements = rootArray + kArrayHeadSize;
  table = rootElements + refSize * elements;
  tableEntries = table + kArrayHeadSize;
  slots = tableEntries + refSize * entries;
  longObjects = slots + slotBytes(refSize) * slotsFor(elements);
}

ArchiveLayout::ArchiveLayout(const Measure& measure)
    : _measure(measure),
      _slots(slotsFor(measure.elements)),
      // Readers want the count itself to fit, not only the highest number.
      _refSize(numbersFor(measure.elements) <= UINT16_MAX ? 2 : 4),
      _at(measure.elements, _refSize) {
  const std::uint64_t numbers = numbersFor(measure.elements);
  const std::uint64_t end = _at.longObjects + measure.longBytes + kOffsetSize * numbers;
  // Whole pages: a file that keeps its length is written faster.
  const std::uint64_t size = (end + kPlistTrailerSize + ChangedPages::kSize - 1) /
                             ChangedPages::kSize * ChangedPages::kSize;
  if (size > UINT32_MAX) throw std::length_error("the archive is too long");
  _offsetsAt = static_cast<std::size_t>(size - kPlistTrailerSize - kOffsetSize * numbers);
  _bytes.resize(static_cast<std::size_t>(size));
  _changed = ChangedPages::all(_bytes.size());
  put(_bytes.size() - kPlistTrailerSize + 6, kOffsetSize << 8 | _refSize, 2);
  put(_bytes.size() - 24, numbers, 8);
  put(_bytes.size() - 8, _offsetsAt, 8);
  fill();
}

/// The containers' heads, the UIDs, and "$null", to which all else leads.
void ArchiveLayout::fill() {
  PlistObjects heads(_refSize);
  heads.addArrayHead(0);
  heads.addArrayHead(entryCount());
  PlistObjects uids(_refSize);
  for (PlistRef entry = 0; entry < entryCount(); ++entry) {
    setPlace(entry, kPlistMagic.size() + uids.bytes().size());
    uids.addUid(entry);
  }
  const std::string_view head = heads.bytes();
  write(0, kPlistMagic);
  write(kPlistMagic.size(), uids.bytes());
  write(_at.rootArray, head.substr(0, kArrayHeadSize));
  write(_at.table, head.substr(kArrayHeadSize));
  setPlace(rootArray(), _at.rootArray);
  setPlace(table(), _at.table);
  for (auto slot = static_cast<std::uint32_t>(_slots.size()); slot-- > 0;) {
    _free.push_back(slot);
    for (PlistRef i = 0; i < kSlotObjects; ++i) {
      setPlace(firstSlotObject() + slot * kSlotObjects + i, _at.slots);
    }
  }
  PlistObjects null(_refSize);
  null.addText("$null");
  takeEntry();  // `kNullUid`
  const PlistRef nullText = place(null.bytes());
  for (PlistRef entry = 0; entry < entryCount(); ++entry) putEntry(entry, nullText);
}

std::uint32_t ArchiveLayout::takeSlot() {
  if (_free.empty()) throw NoRoom();
  const std::uint32_t slot = _free.back();
  _free.pop_back();
  return slot;
}

PlistRef ArchiveLayout::takeEntry() {
  if (_current == kNoSlot || _slots[_current].entries == kSlotEntries) _current = takeSlot();
  ++_slots[_current].used;
  return _current * kSlotEntries + _slots[_current].entries++;
}

PlistRef ArchiveLayout::place(std::string_view object, bool isForAll) {
  std::uint32_t& current = isForAll ? _forAll : _current;
  const bool isLong = object.size() > slotBytes(_refSize);
  if (isLong && _longBytes + object.size() > _measure.longBytes) {
    throw NoRoom{_longBytes + object.size()};
  }
  const auto isFull = [&](const Slot& slot) {
    return slot.objects == kSlotObjects ||
           (!isLong && slot.bytes + object.size() > slotBytes(_refSize));
  };
  if (current == kNoSlot || isFull(_slots[current])) current = takeSlot();
  Slot& slot = _slots[current];
  slot.isForAll = isForAll;
  const PlistRef number = firstSlotObject() + current * kSlotObjects + slot.objects++;
  ++slot.used;
  std::size_t at = _at.longObjects + _longBytes;
  if (isLong) {
    _longBytes += object.size();
  } else {
    at = _at.slots + current * slotBytes(_refSize) + slot.bytes;
    slot.bytes = static_cast<std::uint16_t>(slot.bytes + object.size());
  }
  write(at, object);
  setPlace(number, at);
  return number;
}

void ArchiveLayout::overwrite(PlistRef placed, std::string_view object) {
  const std::size_t at = placeOf(placed);
  const Refs refs = refsOf(placed);
  if (refs.at + refs.count * _refSize != at + object.size()) throw NoRoom();
  if (_bytes.compare(at, object.size(), object) != 0) write(at, object);
}

void ArchiveLayout::freeEntry(PlistRef entry) {
  putEntry(entry, objectOf(kNullUid));
  release(entry / kSlotEntries);
}

void ArchiveLayout::freeObject(PlistRef placed) {
  setPlace(placed, _at.slots);
  release(slotOf(placed));
}

void ArchiveLayout::release(std::uint32_t slot) {
  if (--_slots[slot].used != 0) return;
  _slots[slot] = {};
  _free.push_back(slot);
}

ArchiveLayout::Refs ArchiveLayout::refsOf(PlistRef object) const {
  const auto reader = BinaryPlistReader::withoutFrame(_bytes, _refSize);
  const PlistObject found = reader.objectAt(placeOf(object));
  return {found.start, BinaryPlistReader::referenceCount(found)};
}

PlistRef ArchiveLayout::ref(const Refs& refs, std::size_t index) const {
  return get(refs.at + index * _refSize, _refSize);
}

PlistRef ArchiveLayout::element(std::size_t index) const {
  return get(_at.rootElements + index * _refSize, _refSize);
}

void ArchiveLayout::appendElement(PlistRef uid) {
  if (_elementCount == _measure.elements) throw NoRoom();
  put(_at.rootElements + _elementCount * _refSize, uid, _refSize);
  putElementCount(_elementCount + 1);
}

void ArchiveLayout::removeElement(std::size_t index) {
  const std::size_t at = _at.rootElements + index * _refSize;
  const std::size_t moved = (_elementCount - index - 1) * _refSize;
  std::memmove(_bytes.data() + at, _bytes.data() + at + _refSize, moved);
  _changed.add(at, moved);
  putElementCount(_elementCount - 1);
}

void ArchiveLayout::putElementCount(std::size_t count) {
  _elementCount = count;
  put(_at.rootElements - kCountSize, count, kCountSize);
}

PlistRef ArchiveLayout::objectOf(PlistRef entry) const {
  return get(_at.tableEntries + entry * _refSize, _refSize);
}

void ArchiveLayout::putEntry(PlistRef entry, PlistRef object) {
  put(_at.tableEntries + entry * _refSize, object, _refSize);
}

std::size_t ArchiveLayout::placeOf(PlistRef object) const {
  return get(_offsetsAt + kOffsetSize * object, kOffsetSize);
}

void ArchiveLayout::setPlace(PlistRef object, std::size_t place) {
  put(_offsetsAt + kOffsetSize * object, place, kOffsetSize);
}

std::uint32_t ArchiveLayout::get(std::size_t at, std::size_t size) const {
  return static_cast<std::uint32_t>(loadBigEndian(_bytes.data() + at, size));
}

void ArchiveLayout::put(std::size_t at, std::uint64_t number, std::size_t size) {
  storeBigEndian(_bytes.data() + at, number, size);
  _changed.add(at, size);
}

void ArchiveLayout::write(std::size_t at, std::string_view bytes) {
  bytes.copy(_bytes.data() + at, bytes.size());
  _changed.add(at, bytes.size());
}

}  // namespace orbiq
