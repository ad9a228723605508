#pragma once

#include <cstddef>

namespace orbiq::test {

/// The program's calls that sync files: counted, and one of them made to fail.
struct DiskCalls {
  std::size_t files = 0;        ///< syncs of files
  std::size_t directories = 0;  ///< and of directories

  static DiskCalls soFar();
  /// Waits until so many files have been synced. False if that has not come about when a test
  /// should be given up.
  [[nodiscard]] static bool waitForFiles(std::size_t count);
  /// Whether closing a duplicate of a descriptor fails, as on a file system that tells only then
  /// that an earlier write has failed.
  static void failFlushes(bool fail);
  /// The next look at what has a name fails, for want of the kernel's memory.
  static void failNextLook();
};

}  // namespace orbiq::test
