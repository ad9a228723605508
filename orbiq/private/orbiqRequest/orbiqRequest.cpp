#include "orbiq/private/orbiqRequest/orbiqRequest.h"

#include <functional>
#include <string>
#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "orbiq/services/platform/base/Ask.h"
#include "orbiq/services/platform/host/Platform.h"

using orbiq::ask;
using orbiq::foldHash;

namespace {

constexpr std::string_view kClassNames[] = {"orbiqRequest", "NSObject"};

constexpr std::string_view kParametersKey = "orbiqRequest_parameters";
constexpr std::string_view kRequestTypeKey = "orbiqRequest_requestType";
constexpr std::string_view kSendingModeKey = "orbiqRequest_sendingMode";
constexpr std::string_view kLastFailKey = "orbiqRequest_lastFail";
constexpr std::string_view kCreationDateKey = "orbiqRequest_creationDate";
constexpr std::string_view kSerialKey = "orbiqRequest_serial";
constexpr std::string_view kNumberOfFailsKey = "orbiqRequest_numberOfFails";
constexpr std::string_view kStatusKey = "orbiqRequest_status";
// Written under one key and read under another: no request comes back from the file with the flag,
// since a restart clears the cache anyway.
constexpr std::string_view kRenewKeyWritten = "orbiqRequest__shouldRenewSession";
constexpr std::string_view kRenewKeyRead = "orbiqRequest_shouldRenewSession";
constexpr std::string_view kTaggerIDKey = "orbiqRequest__taggerID";
constexpr std::string_view kAuthKey = "orbiqRequest_auth";

std::uintptr_t hashOfDate(const std::optional<orbiq::Date>& date) {
  return date ? std::hash<double>()(date->secondsSinceReferenceDate) : 0;
}

std::uintptr_t hashOfParameters(const orbiq::SharedParameters& parameters) {
  if (!parameters) return 0;
  std::uintptr_t result = 1;
  for (const auto& [key, value] : *parameters) {
    result = foldHash(result, key.hash());
    result = foldHash(result, value.hash());
  }
  return result;
}

/// To 32 bits and, as a signed number, back to the word; a 32-bit word takes the number unfolded.
std::uintptr_t foldedNumberOfFails(std::uint64_t number) {
  if constexpr (sizeof(std::uintptr_t) == 4) return static_cast<std::uintptr_t>(number);
  const auto folded =
      static_cast<std::int32_t>(static_cast<std::uint32_t>(number ^ (number >> 32)));
  return static_cast<std::uintptr_t>(static_cast<std::intptr_t>(folded));
}

std::string describeParameters(const orbiq::SharedParameters& parameters) {
  if (!parameters) return "(null)";
  std::string text = "{\n";
  for (const auto& [key, value] : *parameters) {
    text.append("    ").append(key.view()).append(" = ").append(value.description()).append(";\n");
  }
  return text + "}";
}

}  // namespace

constinit const orbiq::ArchivedClass orbiqRequest::kArchivedClass{
    kClassNames, [](orbiq::KeyedUnarchiver& coder) -> std::shared_ptr<orbiq::Archivable> {
      return std::make_shared<orbiqRequest>(coder);
    }};

std::shared_ptr<orbiqRequest>
orbiqRequest::orbiqRequestWithParameters_withRequestType_forSendingMode_forSerial_forTagger(
    orbiq::SharedParameters parameters, orbiq::RequestType requestType,
    orbiq::SendingMode sendingMode, orbiq::String serial, std::shared_ptr<orbiqTaggerID> taggerID) {
  return std::make_shared<orbiqRequest>(std::move(parameters), requestType, sendingMode,
                                        std::move(serial), std::move(taggerID));
}

orbiqRequest::orbiqRequest(orbiq::SharedParameters parameters, orbiq::RequestType requestType,
                           orbiq::SendingMode sendingMode, orbiq::String serial,
                           std::shared_ptr<orbiqTaggerID> taggerID)
    : _parameters(std::move(parameters)),
      _requestType(requestType),
      _sendingMode(sendingMode),
      _taggerID(std::move(taggerID)),
      _serial(std::move(serial)),
      _creationDate(orbiq::Platform::now()) {}

orbiqRequest::orbiqRequest(orbiq::KeyedUnarchiver& coder)
    : _parameters(coder.decodeParameters(kParametersKey)),
      _requestType(static_cast<orbiq::RequestType>(coder.decodeInteger(kRequestTypeKey))),
      _sendingMode(static_cast<orbiq::SendingMode>(coder.decodeUnsigned(kSendingModeKey))),
      _taggerID(coder.decodeObject<orbiqTaggerID>(kTaggerIDKey)),
      _serial(coder.decodeString(kSerialKey)),
      _lastFail(coder.decodeDate(kLastFailKey)),
      _creationDate(coder.decodeDate(kCreationDateKey)),
      _numberOfFails(coder.decodeUnsigned(kNumberOfFailsKey)),
      _status(static_cast<orbiq::RequestStatus>(coder.decodeInteger(kStatusKey))),
      _shouldRenewSessionAfter(coder.decodeBoolean(kRenewKeyRead)),
      _auth(coder.decodeObject<orbiqAuth>(kAuthKey)) {}

void orbiqRequest::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  coder.encodeParameters(_parameters, kParametersKey);
  coder.encodeInteger(_requestType, kRequestTypeKey);
  coder.encodeInteger(static_cast<std::int64_t>(_sendingMode), kSendingModeKey);
  coder.encodeDate(_lastFail, kLastFailKey);
  coder.encodeDate(_creationDate, kCreationDateKey);
  coder.encodeString(_serial, kSerialKey);
  coder.encodeInteger(static_cast<std::int64_t>(_numberOfFails), kNumberOfFailsKey);
  coder.encodeInteger(_status, kStatusKey);
  coder.encodeBoolean(_shouldRenewSessionAfter, kRenewKeyWritten);
  coder.encodeObject(_taggerID, kTaggerIDKey);
  coder.encodeObject(_auth, kAuthKey);
}

std::shared_ptr<orbiqRequest> orbiqRequest::copy() const {
  auto request = std::make_shared<orbiqRequest>(_parameters, _requestType, _sendingMode,
                                                _serial.copy(), _taggerID);
  request->_lastFail = _lastFail;
  request->_creationDate = _creationDate;
  request->_numberOfFails = _numberOfFails;
  request->_status = _status;
  request->_shouldRenewSessionAfter = _shouldRenewSessionAfter;
  request->_auth = ask(_auth, &orbiqAuth::copy);
  return request;
}

std::uintptr_t orbiqRequest::hash() const {
  std::uintptr_t result = foldHash(1, hashOfParameters(_parameters));
  result = foldHash(result, hashOfDate(_lastFail));
  result = foldHash(result, hashOfDate(_creationDate));
  result = foldHash(result, foldedNumberOfFails(_numberOfFails));
  result = foldHash(result, static_cast<std::uintptr_t>(_sendingMode));
  return foldHash(result, static_cast<std::uint32_t>(_status));
}

std::string orbiqRequest::description() const {
  const orbiq::String host = isSentToSerial() ? "" : ask(currentAccess(), &orbiqAccess::host);
  // "hote" is the word that the logs have always had.
  return "\"serial " + _serial.description() + " - request type " +
         (_requestType != orbiq::RequestTypeAudience ? "streaming" : "audience") + " - hote " +
         host.description() + " - parameters " + describeParameters(_parameters) + "\"";
}
