#include "orbiq/private/orbiqRequest/orbiqClearCache.h"

namespace {

constexpr std::string_view kClassNames[] = {"orbiqClearCache", "orbiqRequest", "NSObject"};

}  // namespace

constinit const orbiq::ArchivedClass orbiqClearCache::kArchivedClass{
    kClassNames, [](orbiq::KeyedUnarchiver& coder) -> std::shared_ptr<orbiq::Archivable> {
      return std::make_shared<orbiqClearCache>(coder);
    }};

orbiqClearCache::orbiqClearCache(orbiq::KeyedUnarchiver& /*coder*/) {}

bool orbiqClearCache::isEqual(const orbiq::Object* other) const {
  return dynamic_cast<const orbiqClearCache*>(other) != nullptr;
}

void orbiqClearCache::encodeWithCoder(orbiq::KeyedArchiver& /*coder*/) const {}
