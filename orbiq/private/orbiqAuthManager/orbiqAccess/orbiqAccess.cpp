#include "orbiq/private/orbiqAuthManager/orbiqAccess/orbiqAccess.h"

#include <stdexcept>
#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr std::string_view kAccessNames[] = {"orbiqAccess", "NSObject"};

orbiq::String composeHost(const orbiq::String& baseURL, const orbiq::String& serial) {
  if (baseURL.isNull()) return nullptr;
  if (serial.isNull()) throw std::invalid_argument("an access with a base URL needs a serial");
  return baseURL.toStdString().append(serial.view());
}

}  // namespace

constinit const orbiq::ArchivedClass orbiqAccess::kArchivedClass{kAccessNames,
                                                                 orbiq::decodeAs<orbiqAccess>};

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
    : firstHitSuccessfullySent(coder.decodeBoolean("orbiqAccess_firstHitSuccessfullySent")),
      _accessMode(static_cast<orbiq::AccessMode>(coder.decodeInteger("orbiqAccess_accessMode"))),
      _serial(coder.decodeString("orbiqAccess_serial")),
      _host(coder.decodeString("orbiqAccess_host")),  // as it was stored, not composed anew
      _baseURL(coder.decodeString("orbiqAccess_baseURL")) {}

void orbiqAccess::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  coder.encodeString(_serial, "orbiqAccess_serial");
  coder.encodeInteger(_accessMode, "orbiqAccess_accessMode");
  coder.encodeString(_baseURL, "orbiqAccess_baseURL");
  coder.encodeBoolean(firstHitSuccessfullySent.load(std::memory_order_relaxed),
                      "orbiqAccess_firstHitSuccessfullySent");
  coder.encodeString(_host, "orbiqAccess_host");
}

bool orbiqAccess::canSendRequestFor(orbiq::RequestType /*requestType*/) const {
  if (_accessMode == orbiq::AccessModeRestricted) {
    return !firstHitSuccessfullySent.load(std::memory_order_relaxed);
  }
  return _accessMode != orbiq::AccessModeDenied;
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
