#include "tools/requests/Json.h"

#include <cmath>
#include <cstdint>
#include <vector>

#include "orbiq/services/platform/time/Date.h"
#include "tools/requests/Text.h"

namespace orbiq::requests {
namespace {

using Json = nlohmann::ordered_json;
using Kind = PlistObject::Kind;

constexpr std::size_t kCostOfValue = 512;

template <class Value>
Json orNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
}

Json timeOrNull(const std::optional<double>& seconds) {
  return seconds ? Json(utcTime(*seconds)) : Json();
}

Json hexadecimal(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    text += kDigits[static_cast<unsigned char>(byte) >> 4];
    text += kDigits[static_cast<unsigned char>(byte) & 0xF];
  }
  return text;
}

Json realOrText(double real) {
  if (std::isfinite(real)) return real;
  return std::isnan(real) ? "nan" : real > 0 ? "inf" : "-inf";
}

/// Writes archived objects as they stand, references among them as references.
class ObjectWriter {
 public:
  explicit ObjectWriter(RequestsArchive& archive)
      : _archive(archive), _reader(*archive.reader()), _plist(_reader.plist()) {}

  template <class Take>
  void forEachObject(const Take& take) {
    for (std::size_t uid = 0; uid < _reader.entries().count; ++uid) {
      if (!_reader.spend(kCostOfValue)) break;
      const PlistObject object = _plist.element(_reader.entries(), uid);
      Json json = {{"uid", uid}};
      if (object.kind != Kind::kNone) {
        json["object"] = object.number;
        json["offset"] = _plist.offsetOf(object.number);
      }
      if (object.kind == Kind::kDictionary) {
        if (const PlistObject name = _reader.classNameOf(object); name.isText()) {
          json["class"] = text(name);
        }
        json["keys"] = keysOf(object);
      } else {
        json["value"] = valueOf(object);
      }
      take(json);
    }
  }

  /// A container within a container is only named: archives have none, but hostile files do.
  Json valueOf(const PlistObject& object) {
    if (object.kind != Kind::kArray) return scalarOf(object);
    Json list = Json::array();
    for (std::size_t i = 0; i < object.count && _reader.spend(kCostOfValue); ++i) {
      list.push_back(scalarOf(_plist.element(object, i)));
    }
    return list;
  }

 private:
  /// Of equal keys the first counts, as for who loads the file.
  Json keysOf(const PlistObject& dictionary) {
    // Not the ordered form, which searches all keys at each insertion.
    nlohmann::json keys = nlohmann::json::object();
    for (std::size_t i = 0; i < dictionary.count && _reader.spend(kCostOfValue); ++i) {
      const PlistObject key = _plist.key(dictionary, i);
      keys.emplace(key.isText() ? text(key) : _archive.described(key),
                   valueOf(_plist.value(dictionary, i)));
    }
    return keys;
  }

  Json scalarOf(const PlistObject& object) {
    switch (object.kind) {
      case Kind::kBoolean:
        return object.count != 0;
      case Kind::kInteger:
        return integer(object);
      case Kind::kReal:
        return realOrText(_plist.number(object)->toReal());
      case Kind::kDate:
        return {{"date", utcTime(*_plist.date(object) + Date::kSecondsFrom1970ToReferenceDate)}};
      case Kind::kData:
        if (!_reader.spend(2 * object.count)) return {};
        return {{"data", hexadecimal(_plist.data(object))}};
      case Kind::kText:
      case Kind::kUtf16:
        return text(object);
      case Kind::kUid:
        return {{"uid", *_plist.uid(object)}};
      case Kind::kNone:
      case Kind::kArray:
      case Kind::kDictionary:
        break;
    }
    return {{"unread", _archive.described(object)}};
  }

  Json integer(const PlistObject& object) {
    const std::optional<PlistNumber> number = _plist.number(object);
    if (!number) return {{"unread", "an integer beyond 64 bits"}};
    if (number->toReal() < 0) return number->toInteger();
    return number->toUnsigned();
  }

  std::string text(const PlistObject& object) {
    if (!_reader.spend(BinaryPlistReader::textBytes(object))) return {};
    return _plist.text(object);
  }

  RequestsArchive& _archive;
  KeyedArchiveReader& _reader;
  const BinaryPlistReader& _plist;
};

std::string_view nameOf(Request::Kind kind) {
  switch (kind) {
    case Request::Kind::kAudience:
      return "audience";
    case Request::Kind::kStreaming:
      return "streaming";
    case Request::Kind::kMarker:
      return "clearCache";
    case Request::Kind::kUnknown:
      break;
  }
  return "unknown";
}

Json accessOf(const Request& request) {
  if (!request.access) return nullptr;
  const Access& access = *request.access;
  return {{"mode", orNull(access.mode)},         {"serial", orNull(access.serial)},
          {"host", orNull(access.host)},         {"baseURL", orNull(access.baseUrl)},
          {"firstHitSent", access.firstHitSent}, {"isFallback", access.isFallback()}};
}

Json taggerOf(const Request& request) {
  if (!request.tagger) return nullptr;
  return {{"serial", orNull(request.tagger->serial)},
          {"partialID", orNull(request.tagger->partialId)},
          {"isStream", request.tagger->isStream}};
}

Json parametersOf(const Request& request) {
  if (!request.parameters) return nullptr;
  nlohmann::json parameters = nlohmann::json::object();
  for (const Parameter& parameter : *request.parameters) {
    nlohmann::json value = parameter.isText ? nlohmann::json(parameter.value)
                                            : nlohmann::json{{"unread", parameter.value}};
    parameters.emplace(parameter.key, std::move(value));
  }
  return parameters;
}

Json requestOf(const Request& request, std::size_t position) {
  Json json = {{"position", position},
               {"kind", nameOf(request.kind)},
               {"class", request.className},
               {"uid", orNull(request.uid)},
               {"serial", orNull(request.serial)},
               {"url", orNull(request.target())},
               {"sendingMode", orNull(request.sendingMode)},
               {"status", orNull(request.status)},
               {"createdAt", timeOrNull(request.createdAt)},
               {"lastFailAt", timeOrNull(request.lastFailAt)},
               {"numberOfFails", request.numberOfFails},
               {"renewsSession", request.renewsSession},
               {"isAuthorized", request.hasAuthorization},
               {"access", accessOf(request)}};
  json["session"] = nullptr;
  if (request.session) {
    json["session"] = {{"serial", orNull(request.session->serial)},
                       {"cmsVI", orNull(request.session->identifier)}};
  }
  json["tagger"] = taggerOf(request);
  json["parameters"] = parametersOf(request);
  return json;
}

Json faultsOf(const Faults& faults) {
  Json list = Json::array();
  for (const Fault& fault : faults.kept()) {
    list.push_back(
        {{"offset", fault.offset}, {"object", orNull(fault.object)}, {"expected", fault.expected}});
  }
  return list;
}

/// Writes containers piece by piece, as they look when they are dumped as a whole.
class Printer {
 public:
  Printer(std::ostream& out, bool isOnOneLine) : _out(out), _isOnOneLine(isOnOneLine) {}

  void begin(char bracket, const char* key = nullptr) {
    place(key);
    _out << bracket;
    _counts.push_back(0);
  }
  void end(char bracket) {
    const bool isEmpty = _counts.back() == 0;
    _counts.pop_back();
    if (!isEmpty) breakLine();
    _out << bracket;
  }
  void value(const Json& json, const char* key = nullptr) {
    place(key);
    for (const char character : dumped(json, _isOnOneLine)) {
      if (character == '\n') {
        breakLine();
      } else {
        _out << character;
      }
    }
  }

 private:
  void place(const char* key) {
    if (_counts.empty()) return;
    if (_counts.back()++ > 0) _out << ',';
    breakLine();
    if (key != nullptr) _out << '"' << key << (_isOnOneLine ? "\":" : "\": ");
  }
  void breakLine() {
    if (!_isOnOneLine) _out << '\n' << std::string(2 * _counts.size(), ' ');
  }

  std::ostream& _out;
  const bool _isOnOneLine;
  std::vector<std::size_t> _counts;  ///< of what stands in each open container
};

void printArchive(Printer& printer, RequestsArchive& archive) {
  KeyedArchiveReader* const reader = archive.reader();
  if (reader == nullptr) return printer.value(nullptr, "archive");
  ObjectWriter writer(archive);
  const auto valueOf = [&](const char* key) {
    return writer.valueOf(reader->valueOf(reader->archive(), key));
  };
  printer.begin('{', "archive");
  printer.value(valueOf("$version"), "version");
  printer.value(valueOf("$archiver"), "archiver");
  printer.begin('[', "objects");
  writer.forEachObject([&](const Json& object) { printer.value(object); });
  printer.end(']');
  printer.value(reader->spend(0), "isWhole");
  printer.end('}');
}

}  // namespace

void printJson(std::ostream& out, const std::string& path, const Snapshot& snapshot,
               RequestsArchive& archive, bool isOnOneLine) {
  Printer printer(out, isOnOneLine);
  printer.begin('{');
  printer.value(path, "file");
  printer.value(archive.size(), "size");
  printer.value(timeOrNull(snapshot.changedAt), "savedAt");
  const bool isKnown = snapshot.use.state != Use::State::kUnknown;
  printer.value(isKnown ? Json(snapshot.use.state == Use::State::kInUse) : Json(), "isInUse");
  printer.value(snapshot.use.process == 0 ? Json() : Json(snapshot.use.process), "process");
  printer.value(snapshot.isSettled, "isSettled");
  printer.value(archive.isLoadable(), "isLoadable");
  printer.begin('[', "requests");
  std::size_t position = 0;
  for (const Request& request : archive.requests()) printer.value(requestOf(request, ++position));
  printer.end(']');
  printer.value(faultsOf(archive.faults()), "faults");
  printer.value(archive.faults().others(), "otherFaults");
  printer.value(archive.notes(), "notes");
  printArchive(printer, archive);
  printer.end('}');
}

std::string dumped(const Json& json, bool isOnOneLine) {
  return json.dump(isOnOneLine ? -1 : 2, ' ', true, Json::error_handler_t::replace);
}

}  // namespace orbiq::requests
