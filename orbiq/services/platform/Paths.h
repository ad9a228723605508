#pragma once

#include <string>

namespace orbiq {

/// The user's directories.
class Paths {
 public:
  /// The application's library directory, whether it exists or not. Any thread. Throws
  /// `std::bad_alloc`, and then the next call tries again.
  static const std::string& libraryDirectory();
  /// Makes a directory and what is missing above it, for this user alone (0700). Returns 0 or the
  /// error number.
  static int makeDirectories(const std::string& path);
};

}  // namespace orbiq
