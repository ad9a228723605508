#include "orbiq/private/orbiqAuthManager/orbiqSession/orbiqSession.h"

#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr std::string_view kSessionNames[] = {"orbiqSession", "NSObject"};

}  // namespace

constinit const orbiq::ArchivedClass orbiqSession::kArchivedClass{kSessionNames,
                                                                  orbiq::decodeAs<orbiqSession>};

std::shared_ptr<orbiqSession> orbiqSession::orbiqSessionWithSerial_withCmsVI(orbiq::String serial,
                                                                             orbiq::String cmsVI) {
  return std::make_shared<orbiqSession>(std::move(serial), std::move(cmsVI));
}

orbiqSession::orbiqSession(orbiq::String serial, orbiq::String cmsVI)
    : _cmsVI(std::move(cmsVI)), _serial(std::move(serial)) {}

orbiqSession::orbiqSession(orbiq::KeyedUnarchiver& coder)
    : _cmsVI(coder.decodeString("orbiqSesion_cmsVI")),
      _serial(coder.decodeString("orbiqSesion_serial")) {}

void orbiqSession::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  // One "s": the misspelling is part of the format.
  coder.encodeString(_serial, "orbiqSesion_serial");
  coder.encodeString(_cmsVI, "orbiqSesion_cmsVI");
}

std::shared_ptr<orbiqSession> orbiqSession::copy() const {
  return orbiqSessionWithSerial_withCmsVI(_serial, _cmsVI);
}
