#include "orbiq/services/platform/archive/ArchiveFrame.h"

#include <algorithm>
#include <utility>

namespace orbiq {
namespace {

constexpr std::int64_t kVersion = 100000;

constexpr std::array<std::string_view, 3> kArrayNames{"NSMutableArray", "NSArray", "NSObject"};
constexpr std::array<std::string_view, 3> kDictionaryNames{"NSMutableDictionary", "NSDictionary",
                                                           "NSObject"};
constexpr std::array<std::string_view, 2> kDateNames{"NSDate", "NSObject"};

}  // namespace

constinit const ArchivedClass kArchivedArray{kArrayNames, nullptr};
constinit const ArchivedClass kArchivedDictionary{kDictionaryNames, nullptr};
constinit const ArchivedClass kArchivedDate{kDateNames, nullptr};

ArchiveFrame::ArchiveFrame(const ArchiveVocabulary& vocabulary, PlistRefSize refSize) {
  _objects.begin(refSize, 0);
  addEntry(_objects.addText("$null"));
  const PlistRef root = addEntry(kNone);
  for (const bool value : {false, true}) _booleans[value ? 1 : 0] = _objects.addBoolean(value);
  for (std::size_t i = 0; i < _integers.size(); ++i) {
    _integers[i] = _objects.addInteger(static_cast<std::int64_t>(i));
  }
  for (const std::string_view name :
       {"$class", "$classname", "$classes", "NS.keys", "NS.objects", "NS.time"}) {
    addFieldName(name);
  }
  for (const std::string_view name : vocabulary.fieldNames) addFieldName(name);
  for (const ArchivedClass* const known : {&kArchivedArray, &kArchivedDictionary, &kArchivedDate}) {
    addClass(*known);
  }
  for (const ArchivedClass* const known : vocabulary.classes) addClass(*known);
  for (const std::vector<std::string>& keys : vocabulary.parameterKeys) addParameterKeys(keys);
  const std::array topKeys{addFieldName("root")};
  const std::array topValues{root};
  _ending = {.objectsKey = fieldNameRef("NS.objects"),
             .classKey = fieldNameRef("$class"),
             .arrayClass = classRef(kArchivedArray),
             .version = _objects.addInteger(kVersion),
             .archiver = _objects.addText("NSKeyedArchiver"),
             .top = _objects.addDictionary(topKeys, topValues),
             .versionKey = addFieldName("$version"),
             .archiverKey = addFieldName("$archiver"),
             .topKey = addFieldName("$top"),
             .tableKey = addFieldName("$objects")};
}

PlistRef ArchiveFrame::integerRef(std::int64_t number) const {
  const auto index = static_cast<std::uint64_t>(number);
  return index < _integers.size() ? _integers[static_cast<std::size_t>(index)] : kNone;
}

PlistRef ArchiveFrame::keyListRef(std::span<const PlistRef> keyUids) const {
  const auto found = std::find_if(_keyLists.begin(), _keyLists.end(), [&](const KeyList& list) {
    return std::equal(list.uids.begin(), list.uids.end(), keyUids.begin(), keyUids.end());
  });
  return found != _keyLists.end() ? found->array : kNone;
}

PlistRef ArchiveFrame::addFieldName(std::string_view name) {
  PlistRef& ref = _fieldNames[name];
  if (ref == kNone) ref = _objects.addText(name);
  _literals[{name.data(), name.size()}] = ref;
  return ref;
}

PlistRef ArchiveFrame::addEntry(PlistRef object) {
  _uidRefs.push_back(_objects.addUid(static_cast<std::uint32_t>(_table.size())));
  _table.push_back(object);
  return _uidRefs.back();
}

void ArchiveFrame::addClass(const ArchivedClass& archivedClass) {
  PlistRef& ref = _classes[&archivedClass];
  if (ref != kNone) return;
  std::vector<PlistRef> chain;
  for (const std::string_view name : archivedClass.names) chain.push_back(addFieldName(name));
  const std::array keys{fieldNameRef("$classname"), fieldNameRef("$classes")};
  const std::array values{chain.front(), _objects.addArray(chain)};
  ref = addEntry(_objects.addDictionary(keys, values));
}

void ArchiveFrame::addParameterKeys(std::span<const std::string> keys) {
  KeyList list;
  for (const std::string& key : keys) {
    PlistRef& ref = _parameterKeys[key];
    if (ref == kNone) ref = addEntry(_objects.addText(key));
    list.uids.push_back(ref);
  }
  if (keyListRef(list.uids) != kNone) return;
  list.array = _objects.addArray(list.uids);
  _keyLists.push_back(std::move(list));
}

}  // namespace orbiq
