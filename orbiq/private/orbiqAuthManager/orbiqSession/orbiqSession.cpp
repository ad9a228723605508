#include "orbiq/private/orbiqAuthManager/orbiqSession/orbiqSession.h"

#include <utility>

#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr std::string_view kClassNames[] = {"orbiqSession", "NSObject"};

// One "s": the misspelling is part of the format.
constexpr std::string_view kSerialKey = "orbiqSesion_serial";
constexpr std::string_view kCmsVIKey = "orbiqSesion_cmsVI";

}  // namespace

constinit const orbiq::ArchivedClass orbiqSession::kArchivedClass{
    kClassNames, [](orbiq::KeyedUnarchiver& coder) -> std::shared_ptr<orbiq::Archivable> {
      return std::make_shared<orbiqSession>(coder);
    }};

std::shared_ptr<orbiqSession> orbiqSession::orbiqSessionWithSerial_withCmsVI(orbiq::String serial,
                                                                             orbiq::String cmsVI) {
  return std::make_shared<orbiqSession>(std::move(serial), std::move(cmsVI));
}

orbiqSession::orbiqSession(orbiq::String serial, orbiq::String cmsVI)
    : _cmsVI(std::move(cmsVI)), _serial(std::move(serial)) {}

orbiqSession::orbiqSession(orbiq::KeyedUnarchiver& coder)
    : _cmsVI(coder.decodeString(kCmsVIKey)), _serial(coder.decodeString(kSerialKey)) {}

void orbiqSession::encodeWithCoder(orbiq::KeyedArchiver& coder) const {
  coder.encodeString(_serial, kSerialKey);
  coder.encodeString(_cmsVI, kCmsVIKey);
}

std::shared_ptr<orbiqSession> orbiqSession::copy() const {
  return orbiqSessionWithSerial_withCmsVI(_serial, _cmsVI);
}
