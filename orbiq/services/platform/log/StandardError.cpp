#include "orbiq/services/platform/log/StandardError.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <new>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/text/Utf8.h"
#include "orbiq/services/platform/threads/WriteSignalsHeld.h"

namespace orbiq {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPatience{250};
constexpr std::string_view kCutMark = " [cut short]\n";

/// The last line could not be written, or only in part.
std::atomic<bool> isStuck{false};
std::atomic<bool> isCut{false};

/// Standard error opened anew, without blocking, where it is a pipe or a terminal: these may
/// promise room that another writer takes, or that is less than a line. None for anything else.
Descriptor openAnew() {
  struct stat status{};
  if (fstat(STDERR_FILENO, &status) != 0) return {};
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return {};
  return Descriptor(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

/// Returns how much was written.
std::size_t write(std::string_view text, SteadyClock::time_point deadline) {
  const Descriptor anew = openAnew();
  const int file = anew.isOpen() ? anew.number() : STDERR_FILENO;
  std::size_t written = 0;
  while (written < text.size()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
    pollfd polled{STDERR_FILENO, POLLOUT, 0};
    const int ready = poll(&polled, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    const std::string_view rest = text.substr(written, PIPE_BUF);
    const ssize_t count = ::write(file, rest.data(), rest.size());
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      // There is some room, but not for all of it. The kernel has no event for that.
      if (SteadyClock::now() >= deadline) break;
      poll(nullptr, 0, 1);
    } else if (errno != EINTR) {
      break;
    }
  }
  return written;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const Utf8Character character = decodeUtf8(text);
    const std::string_view bytes = text.substr(0, character.byteCount);
    const auto code = static_cast<unsigned>(character.codePoint);
    const auto byte = static_cast<unsigned>(static_cast<unsigned char>(text.front()));
    char escape[8];
    if (character.wellFormed && code >= 0x80 && code < 0xA0) {
      std::snprintf(escape, sizeof escape, "\\u%04X", code);
      result += escape;
    } else if (code == '\n') {
      result += "\n\t";
    } else if (!character.wellFormed || (isControl(code) && code != '\t')) {
      std::snprintf(escape, sizeof escape, "\\x%02X", byte);
      result += escape;
    } else {
      result += bytes;
    }
    text.remove_prefix(character.byteCount);
  }
  return result;
}

void writeToStandardError(std::string_view line) {
  const WriteSignalsHeld held;
  const bool wasStuck = isStuck.load(std::memory_order_relaxed);
  const auto deadline = SteadyClock::now() + (wasStuck ? kPatience.zero() : kPatience);
  std::string marked;
  try {
    if (isCut.load(std::memory_order_relaxed)) line = marked.append(kCutMark).append(line);
  } catch (const std::bad_alloc&) {
    // Then without the mark.
  }
  const std::size_t written = write(line, deadline);
  isStuck.store(written < line.size(), std::memory_order_relaxed);
  if (written > 0) isCut.store(written < line.size(), std::memory_order_relaxed);
}

}  // namespace orbiq
