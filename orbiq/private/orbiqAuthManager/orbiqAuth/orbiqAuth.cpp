#include "orbiq/private/orbiqAuthManager/orbiqAuth/orbiqAuth.h"

#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr std::string_view kClassNames[] = {"orbiqAuth", "NSObject"};

constexpr std::string_view kAccessKey = "orbiqAuth_currentAccess";
constexpr std::string_view kSessionKey = "orbiqAuth_currentSession";
constexpr std::string_view kDefaultValuesKey = "orbiqAuth_defaultValues";

}  // namespace

constinit const orbiq::ArchivedClass orbiqAuth::kArchivedClass{
    kClassNames, [](orbiq::KeyedUnarchiver& coder) -> std::shared_ptr<orbiq::Archivable> {
      return std::make_shared<orbiqAuth>(coder);
    }};

std::shared_ptr<orbiqAuth> orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
    std::shared_ptr<orbiqSession> session, std::shared_ptr<orbiqAccess> access, bool isDefault) {
  return std::make_shared<orbiqAuth>(std::move(session), std::move(access), isDefault);
}

orbiqAuth::orbiqAuth(std::shared_ptr<orbiqSession> session, std::shared_ptr<orbiqAccess> access,
                     bool /*isDefault*/)
    : _currentSession(std::move(session)), _currentAccess(std::move(access)) {}

orbiqAuth::orbiqAuth(orbiq::KeyedUnarchiver& coder)
    : defaultValues(coder.decodeBoolean(kDefaultValuesKey)),
      _currentSession(coder.decodeObject<orbiqSession>(kSessionKey)),
      _currentAccess(coder.decodeObject<orbiqAccess>(kAccessKey)) {}

void orbiqAuth::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  coder.encodeObject(_currentAccess, kAccessKey);
  coder.encodeObject(_currentSession, kSessionKey);
  coder.encodeBoolean(defaultValues, kDefaultValuesKey);
}

std::shared_ptr<orbiqAuth> orbiqAuth::copy() const {
  return orbiqAuthWithSession_withAccess_andIsDefault(_currentSession, _currentAccess,
                                                      defaultValues);
}
