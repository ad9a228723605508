#pragma once

#include <atomic>
#include <cstddef>

namespace orbiq::test {

/// The program's syncs of files, counted, and other calls on files that are made to fail.
struct DiskCalls {
  std::size_t files = 0;        ///< syncs of files
  std::size_t directories = 0;  ///< and of directories

  static DiskCalls soFar();
  /// Waits until so many files have been synced. False if that has not come about when a test
  /// should be given up.
  [[nodiscard]] static bool waitForFiles(std::size_t count);
  /// Whether closing a duplicate of a descriptor fails, as on a file system that tells only then
  /// that an earlier write has failed.
  static inline std::atomic<bool> flushesFail = false;
  /// The next look at what has a name fails, for want of the kernel's memory.
  static inline std::atomic<bool> nextLookFails = false;
};

/// What the kernel says to this program instead of opening a netlink socket, and instead of its
/// answer to a request; 0 for the truth.
struct NetlinkFaults {
  static inline std::atomic<int> opening = 0;
  static inline std::atomic<int> answers = 0;
  /// How many answers were replaced.
  static inline std::atomic<int> count = 0;
};

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
