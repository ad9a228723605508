#pragma once

#include <atomic>

namespace orbiq::test {

/// What the kernel says to this program instead of opening a netlink socket, and instead of its
/// answer to a request; 0 for the truth.
struct NetlinkFaults {
  static inline std::atomic<int> opening = 0;
  static inline std::atomic<int> answers = 0;
  /// How many answers were replaced.
  static inline std::atomic<int> count = 0;
};

}  // namespace orbiq::test
