#pragma once

#include <sys/resource.h>

namespace orbiq::test {

/// While it lives, a limit of this process (RLIMIT_…) is 0.
class NothingAllowed {
 public:
  explicit NothingAllowed(__rlimit_resource_t resource) : _resource(resource) {
    getrlimit(_resource, &_usual);
    const rlimit none{0, _usual.rlim_max};
    setrlimit(_resource, &none);
  }
  ~NothingAllowed() { setrlimit(_resource, &_usual); }
  NothingAllowed(const NothingAllowed&) = delete;
  NothingAllowed& operator=(const NothingAllowed&) = delete;

 private:
  const __rlimit_resource_t _resource;
  rlimit _usual{};
};

}  // namespace orbiq::test
