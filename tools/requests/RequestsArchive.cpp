#include "tools/requests/RequestsArchive.h"

#include <algorithm>
#include <array>
#include <utility>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "orbiq/services/platform/time/Date.h"

namespace orbiq::requests {
namespace {

using Kind = PlistObject::Kind;

constexpr std::array<const ArchivedClass*, 2> kRequestClasses{&orbiqRequest::kArchivedClass,
                                                              &orbiqClearCache::kArchivedClass};

// Far above what an honest file takes, whose requests may share much, and what a file of any size
// may take.
constexpr std::size_t kBudgetPerByte = 512;
constexpr std::size_t kLeastBudget = 1U << 20U;
constexpr std::size_t kLargestBudget = 1U << 27U;
constexpr std::size_t kCostOfRequest = 1024;
constexpr std::size_t kCostOfParameter = 128;
constexpr std::size_t kCostOfKey = 16;
constexpr std::size_t kMostNotes = 50;

// What the records have. The renewal's flag is written under one key and read under another.
constexpr std::string_view kRenewKeyRead = "orbiqRequest_shouldRenewSession";
constexpr std::array<std::string_view, 11> kRequestKeys{
    "orbiqRequest_parameters",    "orbiqRequest_requestType",  "orbiqRequest_sendingMode",
    "orbiqRequest_lastFail",      "orbiqRequest_creationDate", "orbiqRequest_serial",
    "orbiqRequest_numberOfFails", "orbiqRequest_status",       "orbiqRequest__shouldRenewSession",
    "orbiqRequest__taggerID",     "orbiqRequest_auth"};
constexpr std::array<std::string_view, 3> kTaggerKeys{
    "orbiqTaggerID_serial", "orbiqTaggerID_partialID", "orbiqTaggerID_isStreamTagger"};
constexpr std::array<std::string_view, 3> kAuthKeys{
    "orbiqAuth_currentAccess", "orbiqAuth_currentSession", "orbiqAuth_defaultValues"};
constexpr std::array<std::string_view, 5> kAccessKeys{
    "orbiqAccess_serial", "orbiqAccess_accessMode", "orbiqAccess_baseURL",
    "orbiqAccess_firstHitSuccessfullySent", "orbiqAccess_host"};
constexpr std::array<std::string_view, 2> kSessionKeys{"orbiqSesion_serial", "orbiqSesion_cmsVI"};

/// Names after a comma each; of many only the first.
class NameList {
 public:
  bool isFull() const { return _count >= kMost; }
  void add(const std::string& name) {
    if (_count++ < kMost) _text += (_text.empty() ? "" : ", ") + name;
  }
  bool isEmpty() const { return _count == 0; }
  std::string text() const {
    return _count <= kMost ? _text : _text + " and " + std::to_string(_count - kMost) + " more";
  }

 private:
  static constexpr std::size_t kMost = 5;
  std::string _text;
  std::size_t _count = 0;
};

std::size_t budgetFor(std::size_t size) {
  return std::clamp(std::min(size, kLargestBudget) * kBudgetPerByte, kLeastBudget, kLargestBudget);
}

std::string_view nameOf(Kind kind) {
  switch (kind) {
    case Kind::kNone:
      return "damaged";
    case Kind::kBoolean:
      return "a boolean";
    case Kind::kInteger:
      return "an integer";
    case Kind::kReal:
      return "a real";
    case Kind::kDate:
      return "a date";
    case Kind::kData:
      return "data";
    case Kind::kText:
    case Kind::kUtf16:
      return "a text";
    case Kind::kUid:
      return "a UID";
    case Kind::kArray:
      return "an array";
    case Kind::kDictionary:
      return "a dictionary";
  }
  return "unknown";
}

}  // namespace

std::optional<std::string> Request::target() const {
  if (!access) return {};
  const bool isSentToSerial = (sendingMode.value_or(0) | 2U) == 2U;
  return isSentToSerial ? access->serial : access->host;
}

RequestsArchive::RequestsArchive(std::string bytes)
    : _size(bytes.size()),
      _isLoadable(KeyedUnarchiver::unarchiveArray(bytes, kRequestClasses).has_value()),
      _container(std::move(bytes), _faults) {
  if (_container.isOpen()) {
    _reader.emplace(_container.reader(), _container.archive(), budgetFor(_size));
    _container.check(_reader->entries().count, _faults);
    checkClasses();
    if (_container.isRebuilt()) {
      _notes.push_back(
          "without the offset table: " + std::to_string(_container.reader().objectCount()) +
          " objects were found, up to offset " + std::to_string(_container.end()));
    }
    noteTexts();
    readList();
    if (!_reader->spend(0)) _faults.add({0, {}, "an archive that reads in proportion to its size"});
  }
  if (!_isLoadable && _faults.isEmpty()) {
    _faults.add({0, {}, "an archive that an application can load"});
  }
}

void RequestsArchive::readList() {
  const PlistObject& archive = _reader->archive();
  const BinaryPlistReader& plist = _reader->plist();
  const bool hasEntries = _reader->entries().kind == Kind::kArray;
  // Cut off with what follows the objects: that is no other fault.
  if (!hasEntries && _container.isRebuilt()) return findRequests();
  if (!plist.isText(_reader->valueOf(archive, "$archiver"), "NSKeyedArchiver")) {
    addFault(archive, "\"NSKeyedArchiver\" under the key $archiver");
  }
  if (!hasEntries) {
    addFault(archive, "an array under the key $objects");
    return findRequests();
  }
  const PlistObject root =
      _reader->entryOf(_reader->valueOf(_reader->valueOf(archive, "$top"), "root"));
  const PlistObject list = _reader->valueOf(root, "NS.objects");
  if (!_reader->isOfClass(root, kArchivedArray.names.first(2)) || list.kind != Kind::kArray) {
    addFault(root.kind == Kind::kNone ? archive : root,
             "an NSArray of requests under the key root; it is " + described(root));
    return findRequests();
  }
  _requests.reserve(std::min(list.count, budgetFor(_size) / kCostOfRequest));
  for (std::size_t i = 0; i < list.count && _reader->spend(kCostOfRequest); ++i) {
    const PlistObject element = plist.element(list, i);
    if (element.kind != Kind::kUid) {
      addFault(list, "a UID as element " + std::to_string(i + 1));
    }
    readElement(plist.uid(element).value_or(0), list);
  }
}

void RequestsArchive::readElement(std::uint64_t uid, const PlistObject& place) {
  const PlistObject object = _reader->entryAt(uid);
  Request request = readRequest(object);
  request.uid = uid;
  if (request.kind == Request::Kind::kUnknown) {
    addFault(object.kind == Kind::kNone ? place : object,
             "an orbiqRequest or orbiqClearCache as element " +
                 std::to_string(_requests.size() + 1) + "; it is " + described(object));
  }
  _requests.push_back(std::move(request));
}

/// Without the list, requests are known by their keys.
void RequestsArchive::findRequests() {
  const BinaryPlistReader& plist = _reader->plist();
  for (std::uint64_t number = 0; number < plist.objectCount(); ++number) {
    const PlistObject object = plist.object(number);
    const PlistObject type = _reader->valueOf(object, "orbiqRequest_requestType");
    if (type.kind == Kind::kNone || !_reader->spend(kCostOfRequest)) continue;
    _requests.push_back(readRequest(object));
  }
  if (!_requests.empty()) {
    _notes.emplace_back(
        "the list of the requests cannot be read: these were found one by one, perhaps not in "
        "their order");
    if (_reader->entries().kind != Kind::kArray) {
      _notes.emplace_back("the object table cannot be read: what a request refers to is lost");
    }
  }
}

/// Every dictionary of the object table is an object of a class, or a class.
void RequestsArchive::checkClasses() {
  for (std::size_t uid = 1; uid < _reader->entries().count; ++uid) {
    const PlistObject entry = _reader->entryAt(uid);
    if (entry.kind != Kind::kDictionary || !_reader->spend(1)) continue;
    if (_reader->valueOf(entry, "$classname").isText()) continue;
    if (!_reader->classNameOf(entry).isText()) {
      addFault(entry, "a $class that leads to the name of a class");
    }
  }
}

Request RequestsArchive::readRequest(const PlistObject& object) {
  Request request;
  request.className = text(_reader->classNameOf(object));
  if (request.className == orbiqClearCache::kArchivedClass.name()) {
    request.kind = Request::Kind::kMarker;
    checkKeys(object, {});
    return request;
  }
  const std::optional<std::int64_t> type = integerOf(object, "orbiqRequest_requestType");
  const bool isNamed = request.className == orbiqRequest::kArchivedClass.name();
  if (!isNamed && (!type || !request.className.empty())) return request;
  request.kind = type.value_or(0) == 0 ? Request::Kind::kAudience : Request::Kind::kStreaming;
  if (isNamed) checkKeys(object, kRequestKeys);
  request.serial = textOf(object, "orbiqRequest_serial");
  if (const auto mode = numberOf(object, "orbiqRequest_sendingMode")) {
    request.sendingMode = mode->toUnsigned();
  }
  request.status = integerOf(object, "orbiqRequest_status");
  if (const auto fails = numberOf(object, "orbiqRequest_numberOfFails")) {
    request.numberOfFails = fails->toUnsigned();
  }
  request.renewsSession = booleanOf(object, "orbiqRequest__shouldRenewSession");
  request.createdAt = dateOf(object, "orbiqRequest_creationDate");
  request.lastFailAt = dateOf(object, "orbiqRequest_lastFail");
  request.parameters = readParameters(object);
  const PlistObject tagger = objectOf(object, "orbiqRequest__taggerID", "orbiqTaggerID");
  if (tagger.kind == Kind::kDictionary) {
    checkKeys(tagger, kTaggerKeys);
    request.tagger = {textOf(tagger, "orbiqTaggerID_serial"),
                      integerOf(tagger, "orbiqTaggerID_partialID"),
                      integerOf(tagger, "orbiqTaggerID_isStreamTagger").value_or(0) != 0};
  }
  readAuthorization(object, request);
  return request;
}

void RequestsArchive::readAuthorization(const PlistObject& object, Request& request) {
  const PlistObject auth = objectOf(object, "orbiqRequest_auth", "orbiqAuth");
  request.hasAuthorization = auth.kind == Kind::kDictionary;
  if (request.hasAuthorization) checkKeys(auth, kAuthKeys);
  const PlistObject access = objectOf(auth, "orbiqAuth_currentAccess", "orbiqAccess");
  if (access.kind == Kind::kDictionary) {
    checkKeys(access, kAccessKeys);
    request.access = {integerOf(access, "orbiqAccess_accessMode"),
                      textOf(access, "orbiqAccess_serial"), textOf(access, "orbiqAccess_host"),
                      textOf(access, "orbiqAccess_baseURL"),
                      booleanOf(access, "orbiqAccess_firstHitSuccessfullySent")};
  }
  const PlistObject session = objectOf(auth, "orbiqAuth_currentSession", "orbiqSession");
  if (session.kind == Kind::kDictionary) {
    checkKeys(session, kSessionKeys);
    // One "s": the misspelling is part of the format.
    request.session = {textOf(session, "orbiqSesion_serial"), textOf(session, "orbiqSesion_cmsVI")};
  }
}

std::optional<std::vector<Parameter>> RequestsArchive::readParameters(const PlistObject& object) {
  constexpr std::string_view kKey = "orbiqRequest_parameters";
  const PlistObject reference = _reader->valueOf(object, kKey);
  const PlistObject dictionary = _reader->entryOf(reference);
  if (!_reader->isOfClass(dictionary, kArchivedDictionary.names.first(2))) {
    addNote(kKey, reference);
    return {};
  }
  const PlistObject keys = _reader->valueOf(dictionary, "NS.keys");
  const PlistObject values = _reader->valueOf(dictionary, "NS.objects");
  if (keys.kind != Kind::kArray || values.kind != Kind::kArray || keys.count != values.count) {
    addFault(dictionary, "as many NS.keys as NS.objects");
    return {};
  }
  std::vector<Parameter> parameters;
  for (std::size_t i = 0; i < keys.count && _reader->spend(kCostOfParameter); ++i) {
    const PlistObject key =
        _reader->charactersOf(_reader->entryOf(_reader->plist().element(keys, i)));
    const PlistObject value = _reader->entryOf(_reader->plist().element(values, i));
    const PlistObject characters = _reader->charactersOf(value);
    if (!key.isText()) addFault(dictionary, "a text as key " + std::to_string(i + 1));
    parameters.push_back({text(key), characters.isText() ? text(characters) : described(value),
                          characters.isText()});
  }
  return parameters;
}

PlistObject RequestsArchive::objectOf(const PlistObject& object, std::string_view key,
                                      std::string_view className) {
  const PlistObject reference = _reader->valueOf(object, key);
  const PlistObject found = _reader->entryOf(reference);
  if (_reader->isOfClass(found, std::array{className})) return found;
  addNote(key, reference);
  return {};
}

std::optional<std::string> RequestsArchive::textOf(const PlistObject& object,
                                                   std::string_view key) {
  const PlistObject reference = _reader->valueOf(object, key);
  const PlistObject characters = _reader->charactersOf(_reader->entryOf(reference));
  if (characters.isText()) return text(characters);
  addNote(key, reference);
  return {};
}

std::optional<PlistNumber> RequestsArchive::numberOf(const PlistObject& object,
                                                     std::string_view key) {
  const PlistObject value = _reader->valueOf(object, key);
  const std::optional<PlistNumber> number = _reader->plist().number(value);
  if (!number) addNote(key, value);
  return number;
}

std::optional<std::int64_t> RequestsArchive::integerOf(const PlistObject& object,
                                                       std::string_view key) {
  const std::optional<PlistNumber> number = numberOf(object, key);
  if (!number) return {};
  return number->toInteger();
}

bool RequestsArchive::booleanOf(const PlistObject& object, std::string_view key) {
  const std::optional<PlistNumber> number = numberOf(object, key);
  return number && number->toBoolean();
}

std::optional<double> RequestsArchive::dateOf(const PlistObject& object, std::string_view key) {
  const PlistObject value = _reader->valueOf(object, key);
  const std::optional<double> seconds = _reader->secondsOf(value);
  if (seconds) return Date::sinceReferenceDate(*seconds).secondsSince1970();
  addNote(key, value);
  return {};
}

std::string RequestsArchive::text(const PlistObject& characters) {
  if (!_reader->spend(BinaryPlistReader::textBytes(characters))) return {};
  return _reader->plist().text(characters);
}

std::string RequestsArchive::described(const PlistObject& object) {
  const PlistObject name = _reader->classNameOf(object);
  if (name.isText()) return "of class " + text(name);
  return std::string(nameOf(object.kind));
}

void RequestsArchive::addFault(const PlistObject& object, std::string expected) {
  if (object.kind == Kind::kNone) {
    _faults.add({object.damage.offset, {}, std::move(expected)});
  } else {
    const auto offset = static_cast<std::size_t>(_reader->plist().offsetOf(object.number));
    _faults.add({offset, object.number, std::move(expected)});
  }
}

void RequestsArchive::checkKeys(const PlistObject& record, std::span<const std::string_view> keys) {
  if (_notes.size() >= kMostNotes || !_checkedRecords.insert(record.number).second) return;
  const BinaryPlistReader& plist = _reader->plist();
  std::vector<std::string_view> missing(keys.begin(), keys.end());
  NameList unknown;
  for (std::size_t i = 0; i < record.count && _reader->spend(kCostOfKey); ++i) {
    const PlistObject key = plist.key(record, i);
    const auto isKey = [&](std::string_view name) { return plist.isText(key, name); };
    const auto place = std::ranges::find_if(missing, isKey);
    if (place != missing.end()) {
      missing.erase(place);
    } else if (!isKey("$class") && !isKey(kRenewKeyRead)) {
      unknown.add(unknown.isFull() ? "" : text(key));
    }
  }
  const std::string who = "request " + std::to_string(_requests.size() + 1) + ": object " +
                          std::to_string(record.number) + " has ";
  NameList absent;
  for (const std::string_view name : missing) absent.add(std::string(name));
  if (!absent.isEmpty()) _notes.push_back(who + "no " + absent.text());
  if (!unknown.isEmpty()) _notes.push_back(who + "what nobody reads: " + unknown.text());
}

void RequestsArchive::noteTexts() {
  for (const std::uint64_t number : _container.textsBeyondAscii(kMostNotes)) {
    _notes.push_back("object " + std::to_string(number) +
                     " is marked as ASCII and is not; it reads as UTF-8");
  }
}

/// What is null is as it should be, and `checkKeys` tells what is absent.
void RequestsArchive::addNote(std::string_view key, const PlistObject& value) {
  const bool isUid = value.kind == Kind::kUid;
  if (value.kind == Kind::kNone && value.damage.expected == nullptr) return;
  if (isUid && _reader->plist().uid(value) == 0) return;
  if (_notes.size() >= kMostNotes || _reader->entries().kind != Kind::kArray) return;
  _notes.push_back("request " + std::to_string(_requests.size() + 1) + ": " + std::string(key) +
                   " reads as none, since it is " +
                   described(isUid ? _reader->entryOf(value) : value));
}

}  // namespace orbiq::requests
