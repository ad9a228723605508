#include "tests/support/NameLookups.h"

#include <dlfcn.h>
#include <netdb.h>

#include <string_view>

#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq::test {
namespace {

// Never destroyed: threads may look names up until the very end.
Condition& changed = *new Condition;
std::size_t count ORBIQ_GUARDED_BY(changed) = 0;
std::size_t hanging ORBIQ_GUARDED_BY(changed) = 0;
bool hang ORBIQ_GUARDED_BY(changed) = false;

void passThrough(const char* name) {
  const Lock lock(changed);
  ++count;
  if (name == nullptr || std::string_view(name) != HangingLookup::kName) return;
  ++hanging;
  changed.broadcast();
  while (hang) changed.wait();
  --hanging;
  changed.broadcast();
}

}  // namespace

std::size_t nameLookupCount() {
  const Lock lock(changed);
  return count;
}

HangingLookup::HangingLookup() {
  const Lock lock(changed);
  hang = true;
}

HangingLookup::~HangingLookup() {
  const Lock lock(changed);
  hang = false;
  changed.broadcast();
  while (hanging > 0) changed.wait();
}

void HangingLookup::await() {
  const Lock lock(changed);
  while (hanging == 0) changed.wait();
}

}  // namespace orbiq::test

/// Takes the C library's place for the whole program.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** result) {
  using Function = decltype(&getaddrinfo);
  static const auto original = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
  orbiq::test::passThrough(name);
  return original(name, service, hints, result);
}
