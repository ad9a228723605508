#pragma once

#include <atomic>

#include "orbiq/services/platform/time/Clock.h"

namespace orbiq::test {

/// A clock that only the test moves; it starts at the real time.
class ManualClock final : public Clock {
 public:
  Date now() const override { return _now; }
  void advance(double seconds) { _now = now().adding(seconds); }

 private:
  std::atomic<Date> _now = SystemClock().now();
};

}  // namespace orbiq::test
