// Any bytes as a requests file: what can be read must be writable, and readable again as the same.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace {

constexpr const orbiq::ArchivedClass* kClasses[] = {&orbiqRequest::kArchivedClass,
                                                    &orbiqClearCache::kArchivedClass};

std::string archive(const std::vector<std::shared_ptr<orbiq::Archivable>>& requests) {
  orbiq::KeyedArchiver archiver;
  archiver.encode({requests.begin(), requests.end()});
  return archiver.bytes();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto requests = orbiq::KeyedUnarchiver::unarchiveArray(bytes, kClasses);
  if (!requests) return 0;
  for (const auto& request : *requests) {
    static_cast<void>(request->description());
    static_cast<void>(request->hash());
  }
  const std::string written = archive(*requests);
  const auto again = orbiq::KeyedUnarchiver::unarchiveArray(written, kClasses);
  if (!again || again->size() != requests->size()) std::abort();
  // The renew flag is read from another key than it is written to, so it is lost the first time.
  const auto third = orbiq::KeyedUnarchiver::unarchiveArray(archive(*again), kClasses);
  if (!third || archive(*third) != archive(*again)) std::abort();
  return 0;
}
