#include "orbiq/services/platform/archive/KeyedArchiver.h"

#include <algorithm>
#include <array>
#include <bit>
#include <new>
#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiveReader.h"

namespace orbiq {
namespace {

constexpr std::size_t kFewestElements = 8;
/// What a long archive is not.
constexpr std::size_t kShort = 16'384;
constexpr std::int64_t kVersion = 100000;

}  // namespace

void KeyedArchiver::encode(const std::vector<Element>& elements) {
  ArchiveLayout::Measure measure{std::max(kFewestElements, std::bit_ceil(elements.size())), 0};
  while (!tryToEncode(elements, measure)) {
  }
  _isWhole = true;
}

/// If not, it has enlarged the measure.
bool KeyedArchiver::tryToEncode(const std::vector<Element>& elements,
                                ArchiveLayout::Measure& measure) try {
  *this = {};
  _layout.emplace(measure);
  _entries.resize(_layout->entryCount());
  _lists.assign(std::bit_ceil(_entries.size()), kNone);
  _object = PlistObjects(_layout->refSize());
  placeFrame();
  for (const Element& element : elements) {
    _layout->beginSlot();
    _layout->appendElement(objectUid(element));
  }
  // With some room to go on.
  const std::size_t longBytes = _layout->longBytes() + _layout->longBytes() / 4;
  if (!_layout->isNearlyFull() && longBytes <= measure.longBytes) return true;
  if (_layout->isNearlyFull()) measure.elements *= 2;
  measure.longBytes = std::max(measure.longBytes, longBytes);
  return false;
} catch (const ArchiveLayout::NoRoom& lack) {
  if (lack.longBytes == 0) measure.elements *= 2;
  measure.longBytes = std::max(measure.longBytes, lack.longBytes + lack.longBytes / 2);
  return false;
}

/// What leads a reader to the elements, and the numbers that need no place of their own.
void KeyedArchiver::placeFrame() {
  const PlistRef root = _layout->takeEntry();
  for (std::int64_t number = 0; number < kSmallIntegers; ++number) {
    _object.addInteger(number);
    _constants[static_cast<std::size_t>(number)] = place(true);
  }
  for (const bool value : {false, true}) {
    _object.addBoolean(value);
    _constants[kBooleans + (value ? 1 : 0)] = place(true);
  }
  assemble({{"NS.objects", _layout->rootArray()}, {"$class", classUid(kArchivedArray)}});
  _layout->putEntry(root, place());
  _object.addInteger(kVersion);
  const PlistRef version = place();
  _object.addText("NSKeyedArchiver");
  const PlistRef archiver = place();
  assemble({{"root", root}});
  const PlistRef top = place();
  assemble({{"$version", version},
            {"$archiver", archiver},
            {"$top", top},
            {"$objects", _layout->table()}});
  _layout->setTop(place());
}

/// What fails for want of room or memory is encoded anew.
template <class Operation>
void KeyedArchiver::edit(const Operation& operation) try {
  if (!isWhole()) return;
  _isWhole = false;
  _layout->beginSlot();
  operation();
  _isWhole = true;
} catch (const ArchiveLayout::NoRoom&) {
} catch (const std::bad_alloc&) {
}

void KeyedArchiver::append(const Element& element) {
  edit([&] { _layout->appendElement(objectUid(element)); });
}

void KeyedArchiver::remove(std::size_t index) {
  edit([&] {
    const PlistRef entry = _layout->element(index);
    _layout->removeElement(index);
    release(entry);
  });
}

void KeyedArchiver::change(const void* record) {
  const PlistRef entry = isWhole() ? find(record) : kNone;
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
  if (_layout && bytes().size() > kShort) *this = {};
}

PlistRef& KeyedArchiver::listOf(const void* address) {
  const std::uint64_t mixed =
      std::uint64_t{reinterpret_cast<std::uintptr_t>(address)} * 0x9E3779B97F4A7C15U;
  return _lists[static_cast<std::size_t>(mixed >> 32) & (_lists.size() - 1)];
}

PlistRef KeyedArchiver::find(const void* address) {
  PlistRef entry = listOf(address);
  while (entry != kNone && _entries[entry].object.get() != address) entry = _entries[entry].next;
  return entry;
}

/// An entry that its first user, the caller, has to fill.
PlistRef KeyedArchiver::add(std::shared_ptr<const void> object) {
  const PlistRef entry = _layout->takeEntry();
  Entry& added = _entries[entry];
  added = {std::move(object), 1, kNone};
  if (added.object) added.next = std::exchange(listOf(added.object.get()), entry);
  return entry;
}

void KeyedArchiver::release(PlistRef entry) {
  Entry& released = _entries[entry];
  if (--released.users != 0) return;
  if (released.object) {
    PlistRef* link = &listOf(released.object.get());
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
    if (ref == ArchiveLayout::kNullUid) continue;
    if (_layout->isEntry(ref)) {
      release(ref);
    } else if (_layout->isOwn(ref)) {
      releaseRefs(ref);
      _layout->freeObject(ref);
    }
  }
}

PlistRef KeyedArchiver::place(bool isForAll) {
  const PlistRef placed = _layout->place(_object.bytes(), isForAll);
  _object.clear();
  return placed;
}

PlistRef KeyedArchiver::placeArray(std::span<const PlistRef> elements) {
  _object.addArray(elements);
  return place();
}

/// The UID that leads to an object, which `assembleIt` assembles if it is new.
template <class Assemble>
PlistRef KeyedArchiver::uid(std::shared_ptr<const void> object, const Assemble& assembleIt) {
  if (!object) return ArchiveLayout::kNullUid;
  PlistRef entry = find(object.get());
  if (entry == kNone) {
    entry = add(std::move(object));
    assembleIt();
    _layout->putEntry(entry, place());
  } else {
    ++_entries[entry].users;
  }
  return entry;
}

PlistRef KeyedArchiver::objectUid(const Element& object) {
  return uid(object, [&] { assembleFields(*object); });
}

PlistRef KeyedArchiver::textUid(const String& text) {
  if (text.isMutable()) _holdsMutableText = true;
  return uid(text.handle(), [&] { _object.addText(text.view()); });
}

PlistRef KeyedArchiver::classUid(const ArchivedClass& archivedClass) {
  return uid({std::shared_ptr<const void>(), &archivedClass}, [&] {
    const std::size_t first = _values.size();
    for (const std::string_view name : archivedClass.names) _values.push_back(nameRef(name));
    const PlistRef chain = placeArray(std::span(_values).subspan(first));
    _values.resize(first);
    ++_entries[find(&archivedClass)].users;  // one more than there are, so that it stays
    assemble({{"$classname", nameRef(archivedClass.name())}, {"$classes", chain}});
  });
}

/// The fields of what it refers to come and go on top of its own.
void KeyedArchiver::assembleFields(const Archivable& object) {
  const std::size_t first = _keys.size();
  object.encodeWithCoder(*this);
  addField("$class", classUid(object.archivedClass()));
  assembleFrom(first);
}

void KeyedArchiver::assemble(std::initializer_list<Name> fields) {
  const std::size_t first = _keys.size();
  for (const auto& [key, value] : fields) addField(key, value);
  assembleFrom(first);
}

/// A dictionary of the fields from that one on, which are done with.
void KeyedArchiver::assembleFrom(std::size_t first) {
  _object.addDictionary(std::span(_keys).subspan(first), std::span(_values).subspan(first));
  _keys.resize(first);
  _values.resize(first);
}

void KeyedArchiver::encodeObject(const Element& object, std::string_view key) {
  addField(key, objectUid(object));
}

void KeyedArchiver::encodeString(const String& text, std::string_view key) {
  addField(key, textUid(text));
}

void KeyedArchiver::encodeDate(const std::optional<Date>& date, std::string_view key) {
  if (!date) return addField(key, ArchiveLayout::kNullUid);
  const PlistRef entry = add(nullptr);
  _object.addReal(date->secondsSinceReferenceDate);
  assemble({{"NS.time", place()}, {"$class", classUid(kArchivedDate)}});
  _layout->putEntry(entry, place());
  addField(key, entry);
}

void KeyedArchiver::encodeParameters(const SharedParameters& parameters, std::string_view key) {
  addField(
      key, uid(parameters, [&] {
        const std::size_t first = _keys.size();
        for (const auto& [name, text] : *parameters) {
          if (text.isNull()) continue;
          _keys.push_back(textUid(name));
          _values.push_back(textUid(text));
        }
        const PlistRef names = placeArray(std::span(_keys).subspan(first));
        const PlistRef texts = placeArray(std::span(_values).subspan(first));
        _keys.resize(first);
        _values.resize(first);
        assemble(
            {{"NS.keys", names}, {"NS.objects", texts}, {"$class", classUid(kArchivedDictionary)}});
      }));
}

void KeyedArchiver::encodeInteger(std::int64_t number, std::string_view key) {
  if (number >= 0 && number < kSmallIntegers) {
    return addField(key, _constants[static_cast<std::size_t>(number)]);
  }
  _object.addInteger(number);
  addField(key, place());
}

void KeyedArchiver::encodeBoolean(bool value, std::string_view key) {
  addField(key, _constants[kBooleans + (value ? 1 : 0)]);
}

void KeyedArchiver::addField(std::string_view key, PlistRef value) {
  _keys.push_back(nameRef(key));
  _values.push_back(value);
}

/// The number of a key's or a class's name, which stands in the archive once. Names recur in the
/// same order, so the search begins behind the last one.
PlistRef KeyedArchiver::nameRef(std::string_view name) {
  for (std::size_t tries = _names.size(); tries > 0; --tries) {
    if (_nextName == _names.size()) _nextName = 0;
    const auto& [known, ref] = _names[_nextName++];
    if (known == name) return ref;
  }
  _object.addText(name);
  _names.emplace_back(name, place(true));
  _nextName = _names.size();
  return _names.back().second;
}

}  // namespace orbiq
