#include "orbiq/private/orbiqAuthManager/orbiqAuth/orbiqAuth.h"

#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr std::string_view kAuthNames[] = {"orbiqAuth", "NSObject"};

}  // namespace

constinit const orbiq::ArchivedClass orbiqAuth::kArchivedClass{kAuthNames,
                                                               orbiq::decodeAs<orbiqAuth>};

std::shared_ptr<orbiqAuth> orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
    std::shared_ptr<orbiqSession> session, std::shared_ptr<orbiqAccess> access, bool isDefault) {
  return std::make_shared<orbiqAuth>(std::move(session), std::move(access), isDefault);
}

orbiqAuth::orbiqAuth(std::shared_ptr<orbiqSession> session, std::shared_ptr<orbiqAccess> access,
                     bool /*isDefault*/)
    : _currentSession(std::move(session)), _currentAccess(std::move(access)) {}

orbiqAuth::orbiqAuth(orbiq::KeyedUnarchiver& coder)
    : defaultValues(coder.decodeBoolean("orbiqAuth_defaultValues")),
      _currentSession(coder.decodeObject<orbiqSession>("orbiqAuth_currentSession")),
      _currentAccess(coder.decodeObject<orbiqAccess>("orbiqAuth_currentAccess")) {}

void orbiqAuth::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  coder.encodeObject(_currentAccess, "orbiqAuth_currentAccess");
  coder.encodeObject(_currentSession, "orbiqAuth_currentSession");
  coder.encodeBoolean(defaultValues, "orbiqAuth_defaultValues");
}

std::shared_ptr<orbiqAuth> orbiqAuth::copy() const {
  return orbiqAuthWithSession_withAccess_andIsDefault(_currentSession, _currentAccess,
                                                      defaultValues);
}
