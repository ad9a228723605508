#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq {

/// A lock between threads and processes for the length of a scope, on a file of its own. All of it
/// stands here, as more than one library is built with it.
class BriefLock {
 public:
  /// Takes the name as `openat` does. Waits for at most `limit`: the holder may have been stopped.
  BriefLock(int directory, const std::string& name, std::chrono::milliseconds limit)
      : _file(openat(directory, name.c_str(),
                     O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::chrono::milliseconds pause{1};
    while (_file.isOpen() && !_isHeld) {
      _isHeld = flock(_file.number(), LOCK_EX | LOCK_NB) == 0;
      if (_isHeld || (errno != EWOULDBLOCK && errno != EINTR)) break;
      if (std::chrono::steady_clock::now() >= deadline) break;
      std::this_thread::sleep_for(pause);
      pause = std::min(2 * pause, std::chrono::milliseconds(32));
    }
  }
  ~BriefLock() {
    // Closing would leave the lock to a child that was forked meanwhile.
    if (_isHeld) flock(_file.number(), LOCK_UN);
  }
  BriefLock(const BriefLock&) = delete;
  BriefLock& operator=(const BriefLock&) = delete;

  bool isHeld() const { return _isHeld; }

 private:
  Descriptor _file;
  bool _isHeld = false;
};

}  // namespace orbiq
