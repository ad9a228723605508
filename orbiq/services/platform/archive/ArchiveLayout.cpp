#include "orbiq/services/platform/archive/ArchiveLayout.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "orbiq/services/platform/archive/BigEndian.h"
#include "orbiq/services/platform/archive/BinaryPlistReader.h"

namespace orbiq {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;
constexpr std::size_t kPlaceSize = 4;
constexpr std::int64_t kVersion = 100000;

// The numbers of objects, up to the vocabulary's.
enum : PlistRef {
  kNullText,
  kNullUidRef,
  kRootUidRef,
  kFalse,
  kTrue,
  kFirstInteger,
  kFirstName = ArchiveLayout::kTable + 1
};
static_assert(kNullUidRef == ArchiveLayout::kNullUid);
static_assert(kFirstInteger + ArchiveLayout::kSmallIntegers == ArchiveLayout::kRootArray);
// Of each class: the array of its names, its description, and the UID that leads there.
constexpr PlistRef kClassObjects = 3;
// Behind the classes.
enum : PlistRef { kRoot, kVersionNumber, kArchiver, kTop, kArchive, kEndingObjects };
// Entries of the object table, before those of the classes.
enum : std::uint32_t { kNullEntry, kRootEntry, kFirstClassEntry };

constexpr std::array<std::string_view, 11> kFirstNames{
    "$class",   "NS.keys",   "NS.objects", "NS.time",  "$classname", "$classes",
    "$version", "$archiver", "$top",       "$objects", "root"};
enum : std::size_t {
  kClassNameKey = ArchiveVocabulary::kTime + 1,
  kClassesKey,
  kVersionKey,
  kArchiverKey,
  kTopKey,
  kTableKey,
  kRootKey
};

constexpr std::array<std::string_view, 3> kArrayNames{"NSMutableArray", "NSArray", "NSObject"};
constexpr std::array<std::string_view, 3> kDictionaryNames{"NSMutableDictionary", "NSDictionary",
                                                           "NSObject"};
constexpr std::array<std::string_view, 2> kDateNames{"NSDate", "NSObject"};

}  // namespace

constinit const ArchivedClass kArchivedArray{kArrayNames, nullptr};
constinit const ArchivedClass kArchivedDictionary{kDictionaryNames, nullptr};
constinit const ArchivedClass kArchivedDate{kDateNames, nullptr};

ArchiveVocabulary::ArchiveVocabulary() : names(kFirstNames.begin(), kFirstNames.end()) {
  for (const ArchivedClass* known : {&kArchivedArray, &kArchivedDictionary, &kArchivedDate}) {
    addClass(*known);
  }
}

std::size_t ArchiveVocabulary::indexOf(std::string_view name, std::size_t from) const {
  const auto start = names.begin() + static_cast<std::ptrdiff_t>(std::min(from, names.size()));
  auto found = std::find(start, names.end(), name);
  if (found == names.end()) {
    found = std::find(names.begin(), start, name);
    if (found == start) return names.size();
  }
  return static_cast<std::size_t>(found - names.begin());
}

void ArchiveVocabulary::addClass(const ArchivedClass& archivedClass) {
  for (const std::string_view name : archivedClass.names) {
    if (indexOf(name, 0) == names.size()) names.push_back(name);
  }
  classes.push_back(&archivedClass);
}

ArchiveLayout::ArchiveLayout(const ArchiveVocabulary& vocabulary, const Measure& measure)
    : _measure(measure), _slots(slotsFor(measure.elements)) {
  const std::size_t classes = vocabulary.classes.size();
  const std::size_t firstClass = kFirstName + vocabulary.names.size();
  const std::size_t firstNumber = firstClass + kClassObjects * classes + kEndingObjects;
  const std::size_t numbers = firstNumber + kSlotNumbers * _slots.size();
  if (numbers > UINT32_MAX) throw std::length_error("the archive is too long");
  // Readers want the count itself to fit, not only the highest number.
  _refSize = numbers <= UINT16_MAX ? 2 : 4;
  _firstClass = static_cast<PlistRef>(firstClass);
  _firstNumber = static_cast<PlistRef>(firstNumber);
  _firstSlotEntry = static_cast<std::uint32_t>(kFirstClassEntry + classes);

  PlistObjects frame(_refSize);
  std::vector<std::size_t> places(_firstNumber);
  addVocabulary(vocabulary, frame, places);
  addEnding(frame, places);

  _rootAt = places[kRootArray] = kMagic.size() + frame.bytes().size();
  _tableAt = places[kTable] = _rootAt + kArrayHeadSize + _refSize * measure.elements;
  _uidsAt = _tableAt + kArrayHeadSize + _refSize * entryCount();
  _slotsAt = _uidsAt + (1 + _refSize) * kSlotUids * _slots.size();
  _longAt = _slotsAt + slotBytes(_refSize) * _slots.size();
  const std::size_t end = _longAt + measure.longBytes + kPlaceSize * numbers + kTrailerSize;
  // Whole pages: a file that keeps its length is written faster.
  const std::size_t size =
      (end + ChangedPages::kSize - 1) / ChangedPages::kSize * ChangedPages::kSize;
  if (size > UINT32_MAX) throw std::length_error("the archive is too long");
  _placesAt = size - kTrailerSize - kPlaceSize * numbers;
  _changed = ChangedPages::all(size);
  _bytes.resize(size);
  kMagic.copy(_bytes.data(), kMagic.size());
  frame.bytes().copy(_bytes.data() + kMagic.size(), frame.bytes().size());
  fill(places);
  put(size - kTrailerSize + 6, kPlaceSize << 8 | _refSize, 2);
  put(size - 24, numbers, 8);
  put(size - 16, _firstClass + kClassObjects * classes + kArchive, 8);
  put(size - 8, _placesAt, 8);
}

void ArchiveLayout::addVocabulary(const ArchiveVocabulary& vocabulary, PlistObjects& objects,
                                  std::vector<std::size_t>& places) {
  const auto begin = [&](PlistRef number) {
    places[number] = kMagic.size() + objects.bytes().size();
  };
  begin(kNullText), objects.addText("$null");
  begin(kNullUidRef), objects.addUid(kNullEntry);
  begin(kRootUidRef), objects.addUid(kRootEntry);
  begin(kFalse), objects.addBoolean(false);
  begin(kTrue), objects.addBoolean(true);
  for (std::int64_t number = 0; number < kSmallIntegers; ++number) {
    begin(smallIntegerRef(number)), objects.addInteger(number);
  }
  for (std::size_t i = 0; i < vocabulary.names.size(); ++i) {
    begin(nameRef(i)), objects.addText(vocabulary.names[i]);
  }
  std::uint32_t entry = kFirstClassEntry;
  PlistRef number = _firstClass;
  for (const ArchivedClass* const archivedClass : vocabulary.classes) {
    std::vector<PlistRef> chain;
    for (const std::string_view name : archivedClass->names) {
      chain.push_back(nameRef(vocabulary.indexOf(name, 0)));
    }
    const std::array keys{nameRef(kClassNameKey), nameRef(kClassesKey)};
    const std::array values{chain.front(), number};
    begin(number++), objects.addArray(chain);
    begin(number++), objects.addDictionary(keys, values);
    begin(number++), objects.addUid(entry++);
  }
}

void ArchiveLayout::addEnding(PlistObjects& objects, std::vector<std::size_t>& places) {
  const PlistRef first = _firstNumber - kEndingObjects;
  const auto begin = [&](PlistRef number) {
    places[first + number] = kMagic.size() + objects.bytes().size();
  };
  const std::array rootKeys{nameRef(ArchiveVocabulary::kObjects),
                            nameRef(ArchiveVocabulary::kClass)};
  const std::array rootValues{PlistRef{kRootArray}, classUidRef(ArchiveVocabulary::kArray)};
  begin(kRoot), objects.addDictionary(rootKeys, rootValues);
  begin(kVersionNumber), objects.addInteger(kVersion);
  begin(kArchiver), objects.addText("NSKeyedArchiver");
  const std::array topKeys{nameRef(kRootKey)};
  const std::array topValues{PlistRef{kRootUidRef}};
  begin(kTop), objects.addDictionary(topKeys, topValues);
  const std::array keys{nameRef(kVersionKey), nameRef(kArchiverKey), nameRef(kTopKey),
                        nameRef(kTableKey)};
  const std::array values{first + kVersionNumber, first + kArchiver, first + kTop,
                          PlistRef{kTable}};
  begin(kArchive), objects.addDictionary(keys, values);
}

/// What is not written here is 0, and so leads to "$null".
void ArchiveLayout::fill(const std::vector<std::size_t>& places) {
  const auto putHead = [this](std::size_t at, std::size_t count) {
    PlistObjects head(_refSize);
    head.addArrayHead(count);
    head.bytes().copy(_bytes.data() + at, kArrayHeadSize);
  };
  putHead(_rootAt, 0);
  putHead(_tableAt, entryCount());
  putEntry(kRootEntry, _firstNumber - kEndingObjects + kRoot);
  for (std::uint32_t entry = kFirstClassEntry; entry < _firstSlotEntry; ++entry) {
    putEntry(entry, _firstClass + kClassObjects * (entry - kFirstClassEntry) + 1);
  }
  for (PlistRef number = 0; number < _firstNumber; ++number) setPlace(number, places[number]);
  PlistObjects uids(_refSize);
  PlistRef number = _firstNumber;
  std::uint32_t entry = _firstSlotEntry;
  for (auto slot = static_cast<std::uint32_t>(_slots.size()); slot-- > 0;) {
    _free.push_back(slot);
    for (std::uint32_t i = 0; i < kSlotUids; ++i) {
      setPlace(number++, _uidsAt + uids.bytes().size());
      uids.addUid(entry++);
    }
    for (std::uint32_t i = 0; i < kSlotObjects; ++i) setPlace(number++, places[kNullText]);
  }
  uids.bytes().copy(_bytes.data() + _uidsAt, uids.bytes().size());
}

PlistRef ArchiveLayout::booleanRef(bool value) { return value ? kTrue : kFalse; }

PlistRef ArchiveLayout::smallIntegerRef(std::int64_t number) {
  return kFirstInteger + static_cast<PlistRef>(number);
}

PlistRef ArchiveLayout::nameRef(std::size_t index) {
  return kFirstName + static_cast<PlistRef>(index);
}

PlistRef ArchiveLayout::classUidRef(std::size_t index) const {
  return _firstClass + kClassObjects * static_cast<PlistRef>(index) + 2;
}

std::uint32_t ArchiveLayout::slotOf(PlistRef placed) const {
  return (placed - _firstNumber) / kSlotNumbers;
}

void ArchiveLayout::takeSlot() {
  if (_free.empty()) throw NoRoom();
  _current = _free.back();
  _free.pop_back();
}

std::uint32_t ArchiveLayout::takeEntry() {
  if (_current == kNoSlot || _slots[_current].uids == kSlotUids) takeSlot();
  ++_slots[_current].used;
  return _firstSlotEntry + _current * kSlotUids + _slots[_current].uids++;
}

PlistRef ArchiveLayout::uidRef(std::uint32_t entry) const {
  const std::uint32_t index = entry - _firstSlotEntry;
  return _firstNumber + index / kSlotUids * kSlotNumbers + index % kSlotUids;
}

std::uint32_t ArchiveLayout::entryOf(PlistRef uidRef) const {
  const PlistRef index = uidRef - _firstNumber;
  return _firstSlotEntry + index / kSlotNumbers * kSlotUids + index % kSlotNumbers;
}

bool ArchiveLayout::isUid(PlistRef placed) const {
  return (placed - _firstNumber) % kSlotNumbers < kSlotUids;
}

PlistRef ArchiveLayout::place(std::string_view object) {
  const bool isLong = object.size() > slotBytes(_refSize);
  const auto isFull = [&](const Slot& slot) {
    return slot.objects == kSlotObjects ||
           (!isLong && slot.bytes + object.size() > slotBytes(_refSize));
  };
  if (_current == kNoSlot || isFull(_slots[_current])) takeSlot();
  Slot& slot = _slots[_current];
  const PlistRef number = _firstNumber + _current * kSlotNumbers + kSlotUids + slot.objects++;
  ++slot.used;
  std::size_t at = _slotsAt + _current * slotBytes(_refSize) + slot.bytes;
  if (isLong) {
    at = _longAt + _longBytes;
    _longBytes += object.size();
    if (lacksLongBytes()) return number;
  } else {
    slot.bytes = static_cast<std::uint16_t>(slot.bytes + object.size());
  }
  object.copy(_bytes.data() + at, object.size());
  _changed.add(at, object.size());
  setPlace(number, at);
  return number;
}

void ArchiveLayout::overwrite(PlistRef placed, std::string_view object) {
  const std::size_t at = placeOf(placed);
  const Refs refs = refsOf(placed);
  if (refs.at + refs.count * _refSize != at + object.size()) throw NoRoom();
  if (_bytes.compare(at, object.size(), object) == 0) return;
  object.copy(_bytes.data() + at, object.size());
  _changed.add(at, object.size());
}

void ArchiveLayout::freeEntry(std::uint32_t entry) {
  putEntry(entry, kNullText);
  release((entry - _firstSlotEntry) / kSlotUids);
}

void ArchiveLayout::freeObject(PlistRef placed) {
  setPlace(placed, placeOf(kNullText));
  release(slotOf(placed));
}

void ArchiveLayout::release(std::uint32_t slot) {
  if (--_slots[slot].used != 0) return;
  _slots[slot] = {};
  _free.push_back(slot);
  if (slot == _current) _current = kNoSlot;
}

ArchiveLayout::Refs ArchiveLayout::refsOf(PlistRef object) const {
  const auto reader = BinaryPlistReader::withoutFrame(_bytes, _refSize);
  const PlistObject found = reader.objectAt(placeOf(object));
  return {found.start, BinaryPlistReader::referenceCount(found)};
}

PlistRef ArchiveLayout::ref(const Refs& refs, std::size_t index) const {
  return get(refs.at + index * _refSize, _refSize);
}

std::uint32_t ArchiveLayout::element(std::size_t index) const {
  return entryOf(get(_rootAt + kArrayHeadSize + index * _refSize, _refSize));
}

void ArchiveLayout::appendElement(PlistRef uid) {
  if (_elementCount == _measure.elements) throw NoRoom();
  put(_rootAt + kArrayHeadSize + _elementCount * _refSize, uid, _refSize);
  putElementCount(_elementCount + 1);
}

void ArchiveLayout::removeElement(std::size_t index) {
  const std::size_t at = _rootAt + kArrayHeadSize + index * _refSize;
  const std::size_t moved = (_elementCount - index - 1) * _refSize;
  std::memmove(_bytes.data() + at, _bytes.data() + at + _refSize, moved);
  _changed.add(at, moved);
  putElementCount(_elementCount - 1);
}

void ArchiveLayout::putElementCount(std::size_t count) {
  _elementCount = count;
  put(_rootAt + kArrayHeadSize - kPlaceSize, count, kPlaceSize);
}

PlistRef ArchiveLayout::objectOf(std::uint32_t entry) const {
  return get(_tableAt + kArrayHeadSize + entry * _refSize, _refSize);
}

void ArchiveLayout::putEntry(std::uint32_t entry, PlistRef object) {
  put(_tableAt + kArrayHeadSize + entry * _refSize, object, _refSize);
}

std::size_t ArchiveLayout::placeOf(PlistRef object) const {
  return get(_placesAt + kPlaceSize * object, kPlaceSize);
}

void ArchiveLayout::setPlace(PlistRef object, std::size_t place) {
  put(_placesAt + kPlaceSize * object, place, kPlaceSize);
}

std::uint32_t ArchiveLayout::get(std::size_t at, std::size_t size) const {
  return static_cast<std::uint32_t>(loadBigEndian(_bytes.data() + at, size));
}

void ArchiveLayout::put(std::size_t at, std::uint64_t number, std::size_t size) {
  storeBigEndian(_bytes.data() + at, number, size);
  _changed.add(at, size);
}

}  // namespace orbiq
