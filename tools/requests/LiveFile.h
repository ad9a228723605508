#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq::requests {

/// Whether an application has a requests file: it then holds a lock on the file beside it.
struct Use {
  enum class State { kFree, kInUse, kUnknown };

  State state = State::kFree;
  pid_t process = 0;  ///< 0 if it is in use by one that cannot be seen from here

  friend bool operator==(const Use&, const Use&) = default;
};

/// One look at a requests file.
struct Snapshot {
  std::string bytes;
  int failure = 0;        ///< why it cannot be read, an error number
  bool isSettled = true;  ///< two readings agreed, and the file stood still for the last one
  std::optional<double> changedAt;  ///< seconds since 1970
  Use use;

  /// Whether there is nothing new in it.
  bool shows(const Snapshot& other) const {
    return bytes == other.bytes && failure == other.failure && use == other.use;
  }
};

/// Reads the file again until two readings agree: an application may be rewriting it under the
/// other name that it will have next.
Snapshot look(const std::string& path);

/// What standard input has, up to its end. When it was saved and whether it is in use is not known.
Snapshot lookAtStandardInput();

/// Tells when a file is replaced, or given up by its application.
class FileWatch {
 public:
  /// Throws `std::system_error` if the file's directory cannot be watched.
  explicit FileWatch(const std::string& path);
  /// Returns when something may have changed; false if there is nothing more to wait for: the
  /// directory has gone, or nobody reads standard output any more.
  bool wait();

 private:
  bool takeEvents(bool& isOfFile);

  Descriptor _inotify;
  std::string _name;
};

}  // namespace orbiq::requests
