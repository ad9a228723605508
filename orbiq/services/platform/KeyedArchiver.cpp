#include "orbiq/services/platform/KeyedArchiver.h"

#include <algorithm>
#include <array>
#include <utility>

namespace orbiq {
namespace {

constexpr std::uint32_t kNone = UINT32_MAX;
constexpr std::uint32_t kNullUid = 0;
constexpr std::uint32_t kRootUid = 1;
constexpr std::int64_t kVersion = 100000;

constexpr std::array<std::string_view, 3> kArrayNames{"NSMutableArray", "NSArray", "NSObject"};
constexpr std::array<std::string_view, 3> kDictionaryNames{"NSMutableDictionary", "NSDictionary",
                                                           "NSObject"};
constexpr std::array<std::string_view, 2> kDateNames{"NSDate", "NSObject"};
constexpr ArchivedClass kArrayClass{kArrayNames, nullptr};
constexpr ArchivedClass kDictionaryClass{kDictionaryNames, nullptr};
constexpr ArchivedClass kDateClass{kDateNames, nullptr};

}  // namespace

KeyedArchiver::KeyedArchiver() = default;
KeyedArchiver::~KeyedArchiver() = default;

void KeyedArchiver::beginRootArray() { _elements.clear(); }

void KeyedArchiver::addElement(const Archivable& object) { _elements.push_back(&object); }

KeyedArchiver::Bytes KeyedArchiver::finish() {
  const bool lastWasHandedOut = std::exchange(_isHandedOut, false);
  std::size_t kept = 0;
  if (holdsElements()) {
    forgetEarlierElements();
    if (lastWasHandedOut) kept = _encoded.back().mark.size;
  } else {
    encodeElements(RefSize::kTwo);
    if (!fits(_encoded.back(), RefSize::kTwo)) encodeElements(RefSize::kFour);
  }
  const std::string_view all = _writer.finish(encodeEnding());
  _isHandedOut = true;
  return {all, kept};
}

/// Whether the elements are the last ones of those in the writer.
bool KeyedArchiver::holdsElements() const {
  const std::size_t count = _elements.size();
  if (_holdsMutableText || count >= _encoded.size()) return false;
  // What fits the narrow references is written with them.
  if (_writer.refSize() != RefSize::kTwo && fits(_encoded[count], RefSize::kTwo)) return false;
  for (std::size_t i = 1; i <= count; ++i) {
    if (_encoded[i].element != _elements[count - i]) return false;
  }
  // Whoever refers to an object stands before it and, being unchanged, keeps it alive.
  return std::all_of(
      _changeables.begin(),
      _changeables.begin() + static_cast<std::ptrdiff_t>(_encoded[count].changeableCount),
      [](const Changeable& seen) { return seen.object->revision() == seen.revision; });
}

void KeyedArchiver::forgetEarlierElements() {
  _encoded.resize(_elements.size() + 1);
  const Encoded& last = _encoded.back();
  _changeables.resize(last.changeableCount);
  _entries.resize(last.entryCount);
  _table.resize(last.entryCount);
  _writer.rewind(last.mark);
}

bool KeyedArchiver::fits(const Encoded& last, RefSize refSize) {
  constexpr std::size_t kEndingObjects = 4;
  return BinaryPlistWriter::fits(last.mark.objectCount + kEndingObjects, refSize);
}

void KeyedArchiver::encodeElements(RefSize refSize) {
  _encoded.clear();
  _changeables.clear();
  _entries.clear();
  _table.clear();
  _objects.clear();
  _texts.clear();
  _parameters.clear();
  _classes.clear();
  _parameterKeys.clear();
  _names.clear();
  _holdsMutableText = false;
  _writer.begin(refSize);
  encodeFrame();
  encodeListed(nullptr, kRootUid);
  for (std::size_t i = _elements.size(); i-- > 0;) {
    encodeListed(_elements[i], entryOf(*_elements[i]));
  }
  _heldTexts.clear();
  _heldParameters.clear();
}

void KeyedArchiver::encodeFrame() {
  addEntry(Kind::kNull, nullptr, _writer.addText("$null"));
  addEntry(Kind::kRoot, nullptr);
  const std::array topKeys{keyRef("root")};
  const std::array topValues{uidRef(kRootUid)};
  _frame = {.objectsKey = keyRef("NS.objects"),
            .classKey = keyRef("$class"),
            .arrayClass = classRef(kArrayClass),
            .version = _writer.addInteger(kVersion),
            .archiver = _writer.addText("NSKeyedArchiver"),
            .top = _writer.addDictionary(topKeys, topValues),
            .versionKey = keyRef("$version"),
            .archiverKey = keyRef("$archiver"),
            .topKey = keyRef("$top"),
            .tableKey = keyRef("$objects")};
}

/// Encodes the entries that are not written yet; they are the element's.
void KeyedArchiver::encodeListed(const Archivable* element, std::uint32_t uid) {
  // What is being encoded may list more.
  const std::size_t first = _encoded.empty() ? kRootUid + 1 : _encoded.back().entryCount;
  for (std::size_t listed = first; listed < _entries.size(); ++listed) {
    if (_table[listed] == kNone) encodeEntry(static_cast<std::uint32_t>(listed));
  }
  const PlistRef ref = uidRef(uid);
  _encoded.push_back({element, ref, _entries.size(), _changeables.size(), _writer.mark()});
}

void KeyedArchiver::encodeEntry(std::uint32_t uid) {
  const Entry entry = _entries[uid];
  PlistRef written = kNone;
  switch (entry.kind) {
    case Kind::kObject:
      written = encodeFields(*static_cast<const Archivable*>(entry.address));
      break;
    case Kind::kParameters:
      written = encodeMapping(*static_cast<const Parameters*>(entry.address));
      break;
    case Kind::kClass:
      written = encodeClass(*static_cast<const ArchivedClass*>(entry.address));
      break;
    case Kind::kNull:
    case Kind::kRoot:
    case Kind::kText:
    case Kind::kDate:
      break;
  }
  _table[uid] = written;
}

PlistRef KeyedArchiver::encodeEnding() {
  _values.clear();
  for (std::size_t i = _encoded.size(); --i > 0;) _values.push_back(_encoded[i].uidRef);
  const std::array rootKeys{_frame.objectsKey, _frame.classKey};
  const std::array rootValues{_writer.addArray(_values), _frame.arrayClass};
  _table[kRootUid] = _writer.addDictionary(rootKeys, rootValues);
  const std::array keys{_frame.versionKey, _frame.archiverKey, _frame.topKey, _frame.tableKey};
  const std::array values{_frame.version, _frame.archiver, _frame.top, _writer.addArray(_table)};
  return _writer.addDictionary(keys, values);
}
PlistRef KeyedArchiver::encodeFields(const Archivable& object) {
  _keys.clear();
  _values.clear();
  object.encodeWithCoder(*this);
  addField("$class", classRef(object.archivedClass()));
  return _writer.addDictionary(_keys, _values);
}

PlistRef KeyedArchiver::encodeMapping(const Parameters& parameters) {
  _keys.clear();
  _values.clear();
  for (const auto& [key, text] : parameters) {
    if (text.isNull()) continue;
    _keys.push_back(uidRef(entryOfParameterKey(key)));
    _values.push_back(uidRef(entryOfText(text)));
  }
  const std::array keys{keyRef("NS.keys"), keyRef("NS.objects"), keyRef("$class")};
  const std::array values{_writer.addArray(_keys), _writer.addArray(_values),
                          classRef(kDictionaryClass)};
  return _writer.addDictionary(keys, values);
}

PlistRef KeyedArchiver::encodeClass(const ArchivedClass& archivedClass) {
  _values.clear();
  for (const std::string_view name : archivedClass.names) _values.push_back(keyRef(name));
  const std::array keys{keyRef("$classname"), keyRef("$classes")};
  const std::array values{_values.front(), _writer.addArray(_values)};
  return _writer.addDictionary(keys, values);
}

void KeyedArchiver::encodeObject(const Archivable* object, std::string_view key) {
  addField(key, uidRef(object != nullptr ? entryOf(*object) : kNullUid));
}

void KeyedArchiver::encodeString(const String& text, std::string_view key) {
  const std::size_t known = _entries.size();
  addField(key, uidRef(entryOfText(text)));
  if (_entries.size() != known) _heldTexts.push_back(text);
}

void KeyedArchiver::encodeDate(const std::optional<Date>& date, std::string_view key) {
  if (!date) return addField(key, uidRef(kNullUid));
  const std::array keys{keyRef("NS.time"), keyRef("$class")};
  const std::array values{_writer.addReal(date->secondsSinceReferenceDate), classRef(kDateClass)};
  addField(key, uidRef(addEntry(Kind::kDate, nullptr, _writer.addDictionary(keys, values))));
}

void KeyedArchiver::encodeParameters(const SharedParameters& parameters, std::string_view key) {
  if (!parameters) return addField(key, uidRef(kNullUid));
  std::uint32_t& uid = _parameters[parameters.get()];
  if (uid == kNone) {
    uid = addEntry(Kind::kParameters, parameters.get());
    _heldParameters.push_back(parameters);
  }
  addField(key, uidRef(uid));
}

void KeyedArchiver::encodeInteger(std::int64_t number, std::string_view key) {
  addField(key, _writer.addInteger(number));
}

void KeyedArchiver::encodeBoolean(bool value, std::string_view key) {
  addField(key, _writer.addBoolean(value));
}

std::uint32_t KeyedArchiver::addEntry(Kind kind, const void* address, PlistRef objectRef) {
  _entries.push_back({address, kind, kNone});
  _table.push_back(objectRef);
  return static_cast<std::uint32_t>(_entries.size() - 1);
}

std::uint32_t KeyedArchiver::entryOf(const Archivable& object) {
  std::uint32_t& uid = _objects[&object];
  if (uid == kNone) {
    uid = addEntry(Kind::kObject, &object);
    // Before the object is read: what changes meanwhile has another revision afterwards.
    const std::uint64_t revision = object.revision();
    if (revision != Archivable::kNeverChanges) _changeables.push_back({&object, revision});
  }
  return uid;
}

std::uint32_t KeyedArchiver::entryOfText(const String& text) {
  if (text.isNull()) return kNullUid;
  if (text.isMutable()) _holdsMutableText = true;
  std::uint32_t& uid = _texts[text.identity()];
  if (uid == kNone) uid = addEntry(Kind::kText, nullptr, _writer.addText(text.view()));
  return uid;
}

std::uint32_t KeyedArchiver::entryOfParameterKey(std::string_view key) {
  std::uint32_t& uid = _parameterKeys[key];
  if (uid == kNone) uid = addEntry(Kind::kText, nullptr, _writer.addText(key));
  return uid;
}

PlistRef KeyedArchiver::uidRef(std::uint32_t uid) {
  PlistRef& ref = _entries[uid].uidRef;
  if (ref == kNone) ref = _writer.addUid(uid);
  return ref;
}

PlistRef KeyedArchiver::classRef(const ArchivedClass& archivedClass) {
  std::uint32_t& uid = _classes[&archivedClass];
  if (uid == kNone) uid = addEntry(Kind::kClass, &archivedClass);
  return uidRef(uid);
}

PlistRef KeyedArchiver::keyRef(std::string_view key) {
  PlistRef& ref = _names[{key.data(), key.size()}];
  if (ref == kNone) ref = _writer.addText(key);
  return ref;
}

void KeyedArchiver::addField(std::string_view key, PlistRef value) {
  _keys.push_back(keyRef(key));
  _values.push_back(value);
}

}  // namespace orbiq
