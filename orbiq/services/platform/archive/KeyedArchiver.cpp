#include "orbiq/services/platform/archive/KeyedArchiver.h"

#include <algorithm>
#include <array>
#include <utility>

namespace orbiq {
namespace {

constexpr std::uint32_t kNone = ArchiveFrame::kNone;
/// A list of so many bytes is a long one.
constexpr std::size_t kLong = 16'384;

}  // namespace

KeyedArchiver::KeyedArchiver(std::span<const Archivable* const> samples) {
  _elements.assign(samples.begin(), samples.end());
  _learns = true;
  encodeAll(PlistRefSize::kTwo);
  _learns = false;
  _frame.reset();
  _elements.clear();
}
KeyedArchiver::~KeyedArchiver() = default;

void KeyedArchiver::beginRootArray() { _elements.clear(); }

KeyedArchiver::Bytes KeyedArchiver::finish() {
  std::size_t kept = 0;
  if (!std::exchange(_isWhole, false) || !goOn(kept)) {
    kept = 0;
    encodeAnew();
  }
  _heldTexts.clear();
  _heldParameters.clear();
  const std::string_view all = encodeEnding();
  _isWhole = true;
  return {all, kept};
}

void KeyedArchiver::forget() {
  if (_plist.capacity() < kLong) return;
  _isWhole = false;
  _elements = {};
  forgetSegments();
  _plist = {};
  for (AddressTable& table : _entries) table = {};
  _successors = {};
  _ending.end();
  _tableRefs = {};
}

void KeyedArchiver::encodeAnew() {
  encodeAll(PlistRefSize::kTwo);
  const std::size_t objects = _plist.endRef() + kEndingObjects;
  if (!ExtendablePlist::fits(objects, PlistRefSize::kTwo)) encodeAll(PlistRefSize::kFour);
  // What only this took.
  _block.end();
  _listed = {};
  _blockSegments = {};
  _blockChangeables = {};
  _heldTexts.shrink_to_fit();
  _heldParameters.shrink_to_fit();
}

void KeyedArchiver::encodeAll(PlistRefSize refSize) {
  if (!_frame || _frame->objects().refSize() != refSize) _frame.emplace(_vocabulary, refSize);
  _plist.begin(_frame->objects());
  forgetSegments();
  for (AddressTable& table : _entries) table.clear();
  _holdsMutableText = false;
  _holdsRepeated = false;
  _successors.clear();
  beginBlock();
  for (std::size_t i = 0; i < _elements.size(); ++i) encodeSegment(*element(i));
  takeBlock();
}

void KeyedArchiver::forgetSegments() {
  _segments.clear();
  _changeables.clear();
  _known.clear();
  _table.clear();
}

void KeyedArchiver::beginBlock() {
  const auto first = static_cast<PlistRef>(_frame->objects().offsets().size());
  const PlistRefSize refSize = _frame->objects().refSize();
  // With wide references nothing is gone on with.
  _block.begin(refSize, first, refSize == PlistRefSize::kTwo);
  _listed.clear();
  _blockSegments.clear();
  _blockChangeables.clear();
  _owners = 0;
}

/// Encodes the element and the entries that it brings.
void KeyedArchiver::encodeSegment(const Archivable& element) {
  const std::size_t first = _listed.size();
  const std::size_t changeables = _blockChangeables.size();
  const auto before = ExtendablePlist::Extent::of(_block);
  _block.beginRun();
  const PlistRef uid = objectUid(element);
  if (_listed.size() == first) _holdsRepeated = true;
  // What is being encoded may list more.
  for (std::size_t index = first; index < _listed.size(); ++index) {
    if (_listed[index].object == kNone) encodeListed(index);
  }
  const auto broughtChangeables =
      static_cast<std::uint32_t>(_blockChangeables.size() - changeables);
  _blockSegments.push_back(
      {&element, uid, broughtChangeables, ExtendablePlist::Extent::of(_block) - before});
}

void KeyedArchiver::encodeListed(std::size_t index) {
  const Listed listed = _listed[index];
  PlistRef object = kNone;
  switch (listed.kind) {
    case Kind::kObject:
      object = encodeFields(*static_cast<const Archivable*>(listed.address));
      break;
    case Kind::kParameters:
      object = encodeMapping(*static_cast<const Parameters*>(listed.address));
      break;
    case Kind::kClass:
      object = encodeClass(*static_cast<const ArchivedClass*>(listed.address));
      break;
    case Kind::kText:
    case Kind::kUnshared:
      break;
  }
  _listed[index].object = object;
}

/// Puts the block in the place of the segments that lose something to it.
void KeyedArchiver::takeBlock() {
  ExtendablePlist::Extent dropped;
  std::size_t changeables = 0;
  for (std::size_t i = 0; i < _owners; ++i) {
    dropped += _segments[i].extent;
    changeables += _segments[i].changeables;
  }
  _plist.replaceFront(dropped, _successors, _block);
  _segments.dropFront(_owners);
  _changeables.dropFront(changeables);
  _known.dropFront(dropped.uids);
  _table.dropFront(dropped.uids);

  std::copy(_blockChangeables.begin(), _blockChangeables.end(),
            _changeables.prepend(_blockChangeables.size()).begin());
  const std::span<Known> known = _known.prepend(_listed.size());
  const std::span<std::uint32_t> table = _table.prepend(_listed.size());
  for (std::size_t i = 0; i < _listed.size(); ++i) {
    const Listed& listed = _listed[i];
    known[i] = {listed.address, _plist.handleOf(listed.uidRef), listed.kind};
    table[i] = _plist.handleOf(listed.object);
  }
  const auto count = static_cast<std::uint32_t>(_blockSegments.size());
  const std::span<Segment> segments = _segments.prepend(count);
  _newest = (_newest + count - static_cast<std::uint32_t>(_owners)) & ~kInBlock;
  std::size_t entry = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    segments[i] = _blockSegments[i];
    segments[i].uidHandle = _plist.handleOf(segments[i].uidHandle);
    for (const std::size_t end = entry + segments[i].extent.uids; entry < end; ++entry) {
      const Listed& listed = _listed[entry];
      if (listed.address == nullptr) continue;
      _entries[static_cast<std::size_t>(listed.kind)][listed.address] = (_newest - i) & ~kInBlock;
    }
  }
}

std::string_view KeyedArchiver::encodeEnding() {
  const ArchiveFrame::Ending& names = _frame->ending();
  _ending.begin(_frame->objects().refSize(), _plist.endRef());
  _values.clear();
  for (std::size_t i = _segments.size(); i-- > 0;) {
    _values.push_back(_plist.refOf(_segments[i].uidHandle));
  }
  const std::array rootKeys{names.objectsKey, names.classKey};
  const std::array rootValues{_ending.addArray(_values), names.arrayClass};
  const PlistRef root = _ending.addDictionary(rootKeys, rootValues);

  const std::span<const PlistRef> frameTable = _frame->table();
  _tableRefs.resize(frameTable.size() + _table.size());
  std::copy(frameTable.begin(), frameTable.end(), _tableRefs.begin());
  _tableRefs[ArchiveFrame::kRootUid] = root;
  const std::uint32_t shift = _plist.refOf(0);
  PlistRef* ref = _tableRefs.data() + frameTable.size();
  for (const std::uint32_t handle : _table) *ref++ = handle + shift;
  const std::array keys{names.versionKey, names.archiverKey, names.topKey, names.tableKey};
  const std::array values{names.version, names.archiver, names.top, _ending.addArray(_tableRefs)};
  return _plist.finish(_ending, _ending.addDictionary(keys, values));
}

PlistRef KeyedArchiver::encodeFields(const Archivable& object) {
  _keys.clear();
  _values.clear();
  object.encodeWithCoder(*this);
  addField("$class", classUid(object.archivedClass()));
  return _block.addDictionary(_keys, _values);
}

PlistRef KeyedArchiver::encodeMapping(const Parameters& parameters) {
  _keys.clear();
  _values.clear();
  for (const auto& [key, text] : parameters) {
    if (text.isNull()) continue;
    _keys.push_back(parameterKeyUid(key.view()));
    _values.push_back(textUid(text, false));
  }
  PlistRef keyList = _frame->keyListRef(_keys);
  if (keyList == kNone) {
    keyList = _block.addArray(_keys);
    if (_learns) learnKeyList(parameters);
  }
  const std::array keys{fieldName("NS.keys"), fieldName("NS.objects"), fieldName("$class")};
  const std::array values{keyList, _block.addArray(_values), _frame->classRef(kArchivedDictionary)};
  return _block.addDictionary(keys, values);
}

void KeyedArchiver::learnKeyList(const Parameters& parameters) {
  std::vector<std::string> keys;
  for (const auto& [key, text] : parameters) {
    if (!text.isNull()) keys.push_back(key.toStdString());
  }
  _vocabulary.parameterKeys.push_back(std::move(keys));
}

PlistRef KeyedArchiver::encodeClass(const ArchivedClass& archivedClass) {
  if (_learns) _vocabulary.classes.push_back(&archivedClass);
  _values.clear();
  for (const std::string_view name : archivedClass.names) _values.push_back(fieldName(name));
  const std::array keys{fieldName("$classname"), fieldName("$classes")};
  const std::array values{_values.front(), _block.addArray(_values)};
  return _block.addDictionary(keys, values);
}

void KeyedArchiver::encodeObject(const Archivable* object, std::string_view key) {
  addField(key, object != nullptr ? objectUid(*object) : _frame->uidRef(ArchiveFrame::kNullUid));
}

void KeyedArchiver::encodeString(const String& text, std::string_view key) {
  addField(key, textUid(text, true));
}

void KeyedArchiver::encodeDate(const std::optional<Date>& date, std::string_view key) {
  if (!date) return addField(key, _frame->uidRef(ArchiveFrame::kNullUid));
  const std::array keys{fieldName("NS.time"), fieldName("$class")};
  const std::array values{_block.addReal(date->secondsSinceReferenceDate),
                          _frame->classRef(kArchivedDate)};
  addField(key, addEntry(Kind::kUnshared, nullptr, _block.addDictionary(keys, values)));
}

void KeyedArchiver::encodeParameters(const SharedParameters& parameters, std::string_view key) {
  if (!parameters) return addField(key, _frame->uidRef(ArchiveFrame::kNullUid));
  const auto [index, isNew] = entryFor(Kind::kParameters, parameters.get());
  if (isNew) _heldParameters.push_back(parameters);
  addField(key, _listed[index].uidRef);
}

void KeyedArchiver::encodeInteger(std::int64_t number, std::string_view key) {
  const PlistRef known = _frame->integerRef(number);
  addField(key, known != kNone ? known : _block.addInteger(number));
}

void KeyedArchiver::encodeBoolean(bool value, std::string_view key) {
  addField(key, _frame->booleanRef(value));
}

PlistRef KeyedArchiver::addEntry(Kind kind, const void* address, PlistRef object) {
  const std::size_t uid = _frame->table().size() + _listed.size();
  const PlistRef ref = _block.addUid(static_cast<std::uint32_t>(uid));
  _listed.push_back({address, kind, ref, object});
  return ref;
}

std::pair<std::uint32_t, bool> KeyedArchiver::entryFor(Kind kind, const void* address) {
  std::uint32_t& number = _entries[static_cast<std::size_t>(kind)][address];
  if (number != kNone) {
    if ((number & kInBlock) != 0) return {number & ~kInBlock, false};
    noteOwner(number);
  }
  const auto index = static_cast<std::uint32_t>(_listed.size());
  number = kInBlock | index;
  addEntry(kind, address, kNone);
  return {index, true};
}

/// Of the segments up to that one, each has to be encoded anew.
void KeyedArchiver::noteOwner(std::uint32_t serial) {
  const std::size_t index = (_newest - serial) & ~kInBlock;
  if (index < _segments.size()) _owners = std::max(_owners, index + 1);
}

PlistRef KeyedArchiver::objectUid(const Archivable& object) {
  const auto [index, isNew] = entryFor(Kind::kObject, &object);
  if (isNew) {
    // Before the object is read: what changes meanwhile has another revision afterwards.
    const std::uint64_t revision = object.revision();
    if (revision != Archivable::kNeverChanges) _blockChangeables.push_back({&object, revision});
  }
  return _listed[index].uidRef;
}

PlistRef KeyedArchiver::textUid(const String& text, bool mayBeFleeting) {
  if (text.isNull()) return _frame->uidRef(ArchiveFrame::kNullUid);
  if (text.isMutable()) _holdsMutableText = true;
  const auto [index, isNew] = entryFor(Kind::kText, text.identity());
  if (isNew) {
    _listed[index].object = _block.addText(text.view());
    if (mayBeFleeting) _heldTexts.push_back(text);
  }
  return _listed[index].uidRef;
}

PlistRef KeyedArchiver::parameterKeyUid(std::string_view key) {
  const PlistRef known = _frame->parameterKeyRef(key);
  if (known != kNone) return known;
  return addEntry(Kind::kUnshared, nullptr, _block.addText(key));
}

PlistRef KeyedArchiver::classUid(const ArchivedClass& archivedClass) {
  const PlistRef known = _frame->classRef(archivedClass);
  if (known != kNone) return known;
  return _listed[entryFor(Kind::kClass, &archivedClass).first].uidRef;
}

PlistRef KeyedArchiver::fieldName(std::string_view name) {
  const PlistRef known = _frame->fieldNameRef(name);
  if (known != kNone) return known;
  if (_learns) _vocabulary.fieldNames.push_back(name);
  return _block.addText(name);
}

void KeyedArchiver::addField(std::string_view key, PlistRef value) {
  _keys.push_back(fieldName(key));
  _values.push_back(value);
}

}  // namespace orbiq
