#pragma once

#include <cstddef>

namespace orbiq::test {

/// Sees every name that this process looks up (`getaddrinfo`).
std::size_t nameLookupCount();

/// While it lives, look-ups of `kName` hang; every other name is looked up as always.
class HangingLookup {
 public:
  static constexpr const char* kName = "hanging.invalid";
  HangingLookup();
  /// Lets them go on, and waits until they have.
  ~HangingLookup();
  /// Waits for such a look-up.
  void await();
  HangingLookup(const HangingLookup&) = delete;
  HangingLookup& operator=(const HangingLookup&) = delete;
};

}  // namespace orbiq::test
