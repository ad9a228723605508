#include "orbiq/private/orbiqAuthManager/orbiqAccess/orbiqAccess.h"

#include <stdexcept>
#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr std::string_view kClassNames[] = {"orbiqAccess", "NSObject"};

constexpr std::string_view kSerialKey = "orbiqAccess_serial";
constexpr std::string_view kAccessModeKey = "orbiqAccess_accessMode";
constexpr std::string_view kBaseURLKey = "orbiqAccess_baseURL";
constexpr std::string_view kFirstHitKey = "orbiqAccess_firstHitSuccessfullySent";
constexpr std::string_view kHostKey = "orbiqAccess_host";

orbiq::String composeHost(const orbiq::String& baseURL, const orbiq::String& serial) {
  if (baseURL.isNull()) return nullptr;
  if (serial.isNull()) throw std::invalid_argument("an access with a base URL needs a serial");
  return baseURL.toStdString().append(serial.view());
}

}  // namespace

constinit const orbiq::ArchivedClass orbiqAccess::kArchivedClass{
    kClassNames, [](orbiq::KeyedUnarchiver& coder) -> std::shared_ptr<orbiq::Archivable> {
      return std::make_shared<orbiqAccess>(coder);
    }};

std::shared_ptr<orbiqAccess> orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
    orbiq::String serial, orbiq::AccessMode accessMode, orbiq::String baseURL) {
  return std::make_shared<orbiqAccess>(std::move(serial), accessMode, std::move(baseURL));
}

orbiqAccess::orbiqAccess(orbiq::String serial, orbiq::AccessMode accessMode, orbiq::String baseURL)
    : _accessMode(accessMode),
      _serial(std::move(serial)),
      _host(composeHost(baseURL, _serial)),
      _baseURL(std::move(baseURL)) {}

orbiqAccess::orbiqAccess(orbiq::KeyedUnarchiver& coder)
    : firstHitSuccessfullySent(coder.decodeBoolean(kFirstHitKey)),
      _accessMode(static_cast<orbiq::AccessMode>(coder.decodeInteger(kAccessModeKey))),
      _serial(coder.decodeString(kSerialKey)),
      _host(coder.decodeString(kHostKey)),  // as it was stored, not composed anew
      _baseURL(coder.decodeString(kBaseURLKey)) {}

void orbiqAccess::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  coder.encodeString(_serial, kSerialKey);
  coder.encodeInteger(_accessMode, kAccessModeKey);
  coder.encodeString(_baseURL, kBaseURLKey);
  coder.encodeBoolean(firstHitSuccessfullySent.load(std::memory_order_relaxed), kFirstHitKey);
  coder.encodeString(_host, kHostKey);
}

bool orbiqAccess::canSendRequestFor(orbiq::RequestType /*requestType*/) const {
  switch (_accessMode) {
    case orbiq::AccessModeDenied:
      return false;
    case orbiq::AccessModeRestricted:
      return !firstHitSuccessfullySent.load(std::memory_order_relaxed);
    default:
      return true;
  }
}

std::shared_ptr<orbiqAccess> orbiqAccess::hitSuccessfullySent() {
  firstHitSuccessfullySent.store(true, std::memory_order_relaxed);
  return weak_from_this().lock();
}

std::shared_ptr<orbiqAccess> orbiqAccess::copy() const {
  auto access = orbiqAccessWithSerial_withAccessMode_withBaseURL(_serial, _accessMode, _baseURL);
  access->_fallbackCause = _fallbackCause;
  if (firstHitSuccessfullySent.load(std::memory_order_relaxed)) access->hitSuccessfullySent();
  return access;
}
