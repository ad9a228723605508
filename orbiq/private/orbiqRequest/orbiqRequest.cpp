#include "orbiq/private/orbiqRequest/orbiqRequest.h"

#include <cstdlib>
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

constexpr std::string_view kRequestNames[] = {"orbiqRequest", "NSObject"};

constexpr std::string_view kStateKey = "cmsPS";
constexpr std::string_view kStoppedState = "12";
constexpr std::string_view kRankKey = "cmsRK";

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

/// The number at the start of the text, behind blanks; 0 if there is none. Saturates.
std::int64_t rankOf(const orbiq::Parameters& parameters) {
  const auto found = parameters.find(kRankKey);
  if (found == parameters.end()) return 0;
  return std::strtoll(found->value.toStdString().c_str(), nullptr, 10);
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

constinit const orbiq::ArchivedClass orbiqRequest::kArchivedClass{kRequestNames,
                                                                  orbiq::decodeAs<orbiqRequest>};

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
    : _parameters(coder.decodeParameters("orbiqRequest_parameters")),
      _requestType(
          static_cast<orbiq::RequestType>(coder.decodeInteger("orbiqRequest_requestType"))),
      _sendingMode(
          static_cast<orbiq::SendingMode>(coder.decodeUnsigned("orbiqRequest_sendingMode"))),
      _taggerID(coder.decodeObject<orbiqTaggerID>("orbiqRequest__taggerID")),
      _serial(coder.decodeString("orbiqRequest_serial")),
      _lastFail(coder.decodeDate("orbiqRequest_lastFail")),
      _creationDate(coder.decodeDate("orbiqRequest_creationDate")),
      _numberOfFails(coder.decodeUnsigned("orbiqRequest_numberOfFails")),
      _status(static_cast<orbiq::RequestStatus>(coder.decodeInteger("orbiqRequest_status"))),
      _shouldRenewSessionAfter(coder.decodeBoolean("orbiqRequest_shouldRenewSession")),
      _auth(coder.decodeObject<orbiqAuth>("orbiqRequest_auth")) {}

void orbiqRequest::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  coder.encodeParameters(_parameters, "orbiqRequest_parameters");
  coder.encodeInteger(_requestType, "orbiqRequest_requestType");
  coder.encodeInteger(static_cast<std::int64_t>(_sendingMode), "orbiqRequest_sendingMode");
  coder.encodeDate(_lastFail, "orbiqRequest_lastFail");
  coder.encodeDate(_creationDate, "orbiqRequest_creationDate");
  coder.encodeString(_serial, "orbiqRequest_serial");
  coder.encodeInteger(static_cast<std::int64_t>(_numberOfFails), "orbiqRequest_numberOfFails");
  coder.encodeInteger(_status, "orbiqRequest_status");
  // Read under another key: no request comes back from the file with the flag, since a restart
  // clears the cache anyway.
  coder.encodeBoolean(_shouldRenewSessionAfter, "orbiqRequest__shouldRenewSession");
  coder.encodeObject(_taggerID, "orbiqRequest__taggerID");
  coder.encodeObject(_auth, "orbiqRequest_auth");
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

bool orbiqRequest::isSentToSerial() const { return (_sendingMode | 2U) == 2U; }

std::optional<orbiq::Url> orbiqRequest::url() const {
  const auto access = ask(_auth, &orbiqAuth::currentAccess);
  if (!access) return std::nullopt;
  if (!isSentToSerial()) return orbiq::Url::fromText(access->host());
  // A null serial reads "(null)", which is a text like any other.
  return orbiq::Url::fromText(access->serial().description());
}

void orbiqRequest::transformToStop() {
  if (!_parameters) return;
  orbiq::Parameters stop = *_parameters;
  stop.insert_or_assign(kStateKey, kStoppedState);
  const auto next = static_cast<std::int64_t>(static_cast<std::uint64_t>(rankOf(stop)) + 1);
  stop.insert_or_assign(kRankKey, std::to_string(next));
  _parameters = std::make_shared<const orbiq::Parameters>(std::move(stop));
}

void orbiqRequest::setTheRank(std::int64_t rank) {
  if (!_parameters) return;
  orbiq::Parameters ranked = *_parameters;
  ranked.insert_or_assign(kRankKey, std::to_string(rank));
  _parameters = std::make_shared<const orbiq::Parameters>(std::move(ranked));
}

orbiq::String orbiqRequest::urlEncode(const orbiq::String& text) const {
  return orbiq::percentEscaped(text);
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
  const auto access = ask(_auth, &orbiqAuth::currentAccess);
  const orbiq::String host = isSentToSerial() ? "" : ask(access, &orbiqAccess::host);
  // "hote" is the word that the logs have always had.
  return "\"serial " + _serial.description() + " - request type " +
         (_requestType != orbiq::RequestTypeAudience ? "streaming" : "audience") + " - hote " +
         host.description() + " - parameters " + describeParameters(_parameters) + "\"";
}
