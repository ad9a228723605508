#pragma once

#include <cmath>
#include <cstdint>

namespace orbiq::bench {

/// Small and the same everywhere: splitmix64.
class Random {
 public:
  explicit Random(std::uint64_t seed = 0) : _state(seed) {}

  std::uint64_t next() {
    std::uint64_t mixed = _state += 0x9E3779B97F4A7C15U;
    mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31U);
  }
  /// From 0 up to, but not, 1.
  double uniform() { return static_cast<double>(next() >> 11U) * 0x1p-53; }
  bool isWithin(double share) { return share > 0 && uniform() < share; }
  /// The time to the next event of those that come so far apart on average.
  double exponential(double mean) { return -std::log1p(-uniform()) * mean; }

 private:
  std::uint64_t _state;
};

}  // namespace orbiq::bench
