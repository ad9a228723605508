#include "orbiq/services/platform/archive/KeyedArchiver.h"

#include <algorithm>
#include <array>
#include <bit>
#include <new>
#include <utility>

namespace orbiq {
namespace {

using Vocabulary = ArchiveVocabulary;

constexpr std::size_t kFewestElements = 8;
/// What a long archive is not.
constexpr std::size_t kShort = 16'384;

}  // namespace

void KeyedArchiver::encode(const std::vector<Element>& elements) {
  _isWhole = false;
  _measure = {std::max(kFewestElements, std::bit_ceil(elements.size())), 0};
  while (!tryToEncode(elements)) {
  }
  _isWhole = true;
}

/// If not, it has enlarged the measure or the vocabulary.
bool KeyedArchiver::tryToEncode(const std::vector<Element>& elements) {
  _layout.reset();
  _layout.emplace(_vocabulary, _measure);
  _entries.clear();
  _entries.resize(_layout->entryCount());
  _lists.assign(std::bit_ceil(_entries.size()), kNone);
  _object = PlistObjects(_layout->refSize());
  _keys.clear();
  _values.clear();
  _lacksNames = false;
  _holdsMutableText = false;
  try {
    for (const Element& element : elements) {
      _layout->beginSlot();
      _layout->appendElement(objectUid(element));
    }
  } catch (const ArchiveLayout::NoRoom&) {
    _measure.elements *= 2;
    return false;
  }
  // With some room to go on.
  const bool hasRoom = _layout->freeSlotCount() >= _layout->slotCount() / 8;
  if (!hasRoom) _measure.elements *= 2;
  const bool lacksLongBytes = _layout->lacksLongBytes();
  if (lacksLongBytes) _measure.longBytes = _layout->longBytes() + _layout->longBytes() / 4;
  return hasRoom && !lacksLongBytes && !_lacksNames;
}

/// What fails for want of room or memory is encoded anew.
template <class Operation>
void KeyedArchiver::edit(const Operation& operation) try {
  if (!isWhole()) return;
  _isWhole = false;
  _layout->beginSlot();
  operation();
  _isWhole = !_lacksNames && !_layout->lacksLongBytes();
} catch (const ArchiveLayout::NoRoom&) {
} catch (const std::bad_alloc&) {
}

void KeyedArchiver::append(const Element& element) {
  edit([&] { _layout->appendElement(objectUid(element)); });
}

void KeyedArchiver::remove(std::size_t index) {
  edit([&] {
    const std::uint32_t entry = _layout->element(index);
    _layout->removeElement(index);
    release(entry);
  });
}

void KeyedArchiver::change(const void* record) {
  const std::uint32_t entry = isWhole() ? find(record) : kNone;
  if (entry == kNone) return;
  edit([&] {
    assembleFields(*static_cast<const Archivable*>(_entries[entry].object.get()));
    const PlistRef object = _layout->objectOf(entry);
    releaseRefs(object);
    _layout->overwrite(object, _object.bytes());
    _object.clear();
  });
}

void KeyedArchiver::forget() {
  if (!_layout || bytes().size() <= kShort) return;
  _isWhole = false;
  _layout.reset();
  _entries = {};
  _lists = {};
  _object = PlistObjects(0);
}

std::uint32_t& KeyedArchiver::listOf(const void* address) {
  const std::uint64_t mixed =
      std::uint64_t{reinterpret_cast<std::uintptr_t>(address)} * 0x9E3779B97F4A7C15U;
  return _lists[static_cast<std::size_t>(mixed >> 32) & (_lists.size() - 1)];
}

std::uint32_t KeyedArchiver::find(const void* address) {
  std::uint32_t entry = listOf(address);
  while (entry != kNone && _entries[entry].object.get() != address) entry = _entries[entry].next;
  return entry;
}

/// An entry that its first user, the caller, has to fill.
std::uint32_t KeyedArchiver::add(std::shared_ptr<const void> object) {
  const std::uint32_t entry = _layout->takeEntry();
  Entry& added = _entries[entry];
  added = {std::move(object), 1, kNone};
  if (added.object) added.next = std::exchange(listOf(added.object.get()), entry);
  return entry;
}

void KeyedArchiver::release(std::uint32_t entry) {
  Entry& released = _entries[entry];
  if (--released.users != 0) return;
  if (released.object) {
    std::uint32_t* link = &listOf(released.object.get());
    while (*link != entry) link = &_entries[*link].next;
    *link = released.next;
    released.object.reset();
  }
  const PlistRef object = _layout->objectOf(entry);
  _layout->freeEntry(entry);
  releaseRefs(object);
  _layout->freeObject(object);
}

/// What an object refers to loses a user; what stands in the object alone goes.
void KeyedArchiver::releaseRefs(PlistRef object) {
  const ArchiveLayout::Refs refs = _layout->refsOf(object);
  for (std::size_t i = 0; i < refs.count; ++i) {
    const PlistRef ref = _layout->ref(refs, i);
    if (!_layout->isPlaced(ref)) continue;
    if (_layout->isUid(ref)) {
      release(_layout->entryOf(ref));
    } else {
      releaseRefs(ref);
      _layout->freeObject(ref);
    }
  }
}

PlistRef KeyedArchiver::place() {
  const PlistRef placed = _layout->place(_object.bytes());
  _object.clear();
  return placed;
}

PlistRef KeyedArchiver::placeArray(std::span<const PlistRef> elements) {
  _object.addArray(elements);
  return place();
}

PlistRef KeyedArchiver::placeDictionary(std::span<const PlistRef> keys,
                                        std::span<const PlistRef> values) {
  _object.addDictionary(keys, values);
  return place();
}

/// Of what has an entry already, the number of the UID that leads there.
std::optional<PlistRef> KeyedArchiver::use(const void* address) {
  if (address == nullptr) return ArchiveLayout::kNullUid;
  const std::uint32_t entry = find(address);
  if (entry == kNone) return std::nullopt;
  ++_entries[entry].users;
  return _layout->uidRef(entry);
}

PlistRef KeyedArchiver::objectUid(const Element& object) {
  if (const auto known = use(object.get())) return *known;
  const std::uint32_t entry = add(object);
  assembleFields(*object);
  _layout->putEntry(entry, place());
  return _layout->uidRef(entry);
}

/// The fields of what it refers to come and go on top of its own.
void KeyedArchiver::assembleFields(const Archivable& object) {
  const std::size_t first = _keys.size();
  object.encodeWithCoder(*this);
  addField("$class", classUid(object.archivedClass()));
  _object.addDictionary(std::span(_keys).subspan(first), std::span(_values).subspan(first));
  _keys.resize(first);
  _values.resize(first);
}

PlistRef KeyedArchiver::textUid(const String& text) {
  if (const auto known = use(text.identity())) return *known;
  if (text.isMutable()) _holdsMutableText = true;
  const std::uint32_t entry = add(text.handle());
  _object.addText(text.view());
  _layout->putEntry(entry, place());
  return _layout->uidRef(entry);
}

PlistRef KeyedArchiver::parametersUid(const SharedParameters& parameters) {
  if (const auto known = use(parameters.get())) return *known;
  const std::uint32_t entry = add(parameters);
  const std::size_t first = _keys.size();
  for (const auto& [key, text] : *parameters) {
    if (text.isNull()) continue;
    _keys.push_back(textUid(key));
    _values.push_back(textUid(text));
  }
  const PlistRef keyList = placeArray(std::span(_keys).subspan(first));
  const PlistRef valueList = placeArray(std::span(_values).subspan(first));
  _keys.resize(first);
  _values.resize(first);
  const std::array keys{ArchiveLayout::nameRef(Vocabulary::kKeys),
                        ArchiveLayout::nameRef(Vocabulary::kObjects),
                        ArchiveLayout::nameRef(Vocabulary::kClass)};
  const std::array values{keyList, valueList, _layout->classUidRef(Vocabulary::kDictionary)};
  _layout->putEntry(entry, placeDictionary(keys, values));
  return _layout->uidRef(entry);
}

void KeyedArchiver::encodeObject(const Element& object, std::string_view key) {
  addField(key, objectUid(object));
}

void KeyedArchiver::encodeString(const String& text, std::string_view key) {
  addField(key, textUid(text));
}

void KeyedArchiver::encodeDate(const std::optional<Date>& date, std::string_view key) {
  if (!date) return addField(key, ArchiveLayout::kNullUid);
  const std::uint32_t entry = add(nullptr);
  _object.addReal(date->secondsSinceReferenceDate);
  const std::array keys{ArchiveLayout::nameRef(Vocabulary::kTime),
                        ArchiveLayout::nameRef(Vocabulary::kClass)};
  const std::array values{place(), _layout->classUidRef(Vocabulary::kDate)};
  _layout->putEntry(entry, placeDictionary(keys, values));
  addField(key, _layout->uidRef(entry));
}

void KeyedArchiver::encodeParameters(const SharedParameters& parameters, std::string_view key) {
  addField(key, parametersUid(parameters));
}

void KeyedArchiver::encodeInteger(std::int64_t number, std::string_view key) {
  if (number >= 0 && number < ArchiveLayout::kSmallIntegers) {
    return addField(key, ArchiveLayout::smallIntegerRef(number));
  }
  _object.addInteger(number);
  addField(key, place());
}

void KeyedArchiver::encodeBoolean(bool value, std::string_view key) {
  addField(key, ArchiveLayout::booleanRef(value));
}

void KeyedArchiver::addField(std::string_view key, PlistRef value) {
  const std::size_t index = _vocabulary.indexOf(key, _nextName);
  if (index == _vocabulary.names.size()) {
    _vocabulary.names.push_back(key);
    _lacksNames = true;
  }
  _nextName = index + 1;
  _keys.push_back(ArchiveLayout::nameRef(index));
  _values.push_back(value);
}

PlistRef KeyedArchiver::classUid(const ArchivedClass& archivedClass) {
  auto& classes = _vocabulary.classes;
  const auto found = std::find(classes.begin(), classes.end(), &archivedClass);
  const auto index = static_cast<std::size_t>(found - classes.begin());
  if (index == classes.size()) {
    _vocabulary.addClass(archivedClass);
    _lacksNames = true;
  }
  return _layout->classUidRef(index);
}

}  // namespace orbiq
