#include "orbiq/private/orbiqRequest/orbiqClearCache.h"

#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr std::string_view kClearCacheNames[] = {"orbiqClearCache", "orbiqRequest", "NSObject"};

}  // namespace

constinit const orbiq::ArchivedClass orbiqClearCache::kArchivedClass{
    kClearCacheNames, orbiq::decodeAs<orbiqClearCache>};

orbiqClearCache::orbiqClearCache(orbiq::KeyedUnarchiver& /*coder*/) {}

bool orbiqClearCache::isEqual(const orbiq::Object* other) const {
  return dynamic_cast<const orbiqClearCache*>(other) != nullptr;
}

void orbiqClearCache::encodeWithCoder(orbiq::KeyedArchiver& /*coder*/) const {}
