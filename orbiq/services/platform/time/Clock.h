#pragma once

#include <chrono>

#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// The one source of "now". Thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual Date now() const = 0;
};

/// The machine's real-time clock.
class SystemClock final : public Clock {
 public:
  Date now() const override {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return Date::since1970(std::chrono::duration<double>(sinceEpoch).count());
  }
};

}  // namespace orbiq
