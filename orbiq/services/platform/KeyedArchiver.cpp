#include "orbiq/services/platform/KeyedArchiver.h"

#include <array>

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

std::string_view KeyedArchiver::finish() {
  PlistRef top = encodeEverything(BinaryPlistWriter::RefSize::kTwo);
  if (!_writer.fits()) top = encodeEverything(BinaryPlistWriter::RefSize::kFour);
  _elements.clear();
  _heldTexts.clear();
  _heldParameters.clear();
  return _writer.finish(top);
}

PlistRef KeyedArchiver::encodeEverything(BinaryPlistWriter::RefSize refSize) {
  _entries.clear();
  _objects.clear();
  _texts.clear();
  _parameters.clear();
  _classes.clear();
  _parameterKeys.clear();
  _names.clear();
  _heldTexts.clear();
  _heldParameters.clear();
  _writer.begin(refSize);
  addEntry(Kind::kNull, nullptr, _writer.addText("$null"));
  addEntry(Kind::kRoot, nullptr, kNone);
  for (std::uint32_t uid = kRootUid; uid < _entries.size() && _writer.fits(); ++uid) {
    if (_entries[uid].objectRef == kNone) encodeEntry(uid);
  }

  _values.clear();
  for (const Entry& entry : _entries) _values.push_back(entry.objectRef);
  const PlistRef objects = _writer.addArray(_values);
  const std::array topKeys{keyRef("root")};
  const std::array topValues{uidRef(kRootUid)};
  const PlistRef top = _writer.addDictionary(topKeys, topValues);
  const std::array keys{keyRef("$version"), keyRef("$archiver"), keyRef("$top"),
                        keyRef("$objects")};
  const std::array values{_writer.addInteger(kVersion), _writer.addText("NSKeyedArchiver"), top,
                          objects};
  return _writer.addDictionary(keys, values);
}

void KeyedArchiver::encodeEntry(std::uint32_t uid) {
  const auto [address, kind, uidRef, objectRef] = _entries[uid];
  PlistRef written = kNone;
  switch (kind) {
    case Kind::kRoot:
      written = encodeRoot();
      break;
    case Kind::kObject:
      written = encodeFields(*static_cast<const Archivable*>(address));
      break;
    case Kind::kParameters:
      written = encodeMapping(*static_cast<const Parameters*>(address));
      break;
    case Kind::kClass:
      written = encodeClass(*static_cast<const ArchivedClass*>(address));
      break;
    case Kind::kNull:
    case Kind::kText:
    case Kind::kDate:
      break;
  }
  _entries[uid].objectRef = written;
}

PlistRef KeyedArchiver::encodeRoot() {
  _values.clear();
  for (const Archivable* element : _elements) {
    _values.push_back(uidRef(entryOf(*element)));
  }
  const std::array keys{keyRef("NS.objects"), keyRef("$class")};
  const std::array values{_writer.addArray(_values), classRef(kArrayClass)};
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
    uid = addEntry(Kind::kParameters, parameters.get(), kNone);
    _heldParameters.push_back(parameters);
  }
  addField(key, uidRef(uid));
}

void KeyedArchiver::encodeInteger(std::int64_t number, std::string_view key) {
  addField(key, _writer.addInteger(number));
}

void KeyedArchiver::encodeUnsigned(std::uint64_t number, std::string_view key) {
  addField(key, _writer.addUnsigned(number));
}

void KeyedArchiver::encodeBoolean(bool value, std::string_view key) {
  addField(key, _writer.addBoolean(value));
}

std::uint32_t KeyedArchiver::addEntry(Kind kind, const void* address, PlistRef objectRef) {
  _entries.push_back({address, kind, kNone, objectRef});
  return static_cast<std::uint32_t>(_entries.size() - 1);
}

std::uint32_t KeyedArchiver::entryOf(const Archivable& object) {
  std::uint32_t& uid = _objects[&object];
  if (uid == kNone) uid = addEntry(Kind::kObject, &object, kNone);
  return uid;
}

std::uint32_t KeyedArchiver::entryOfText(const String& text) {
  if (text.isNull()) return kNullUid;
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
  if (uid == kNone) uid = addEntry(Kind::kClass, &archivedClass, kNone);
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
