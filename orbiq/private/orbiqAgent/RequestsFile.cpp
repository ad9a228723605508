#include "orbiq/private/orbiqAgent/RequestsFile.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "orbiq/services/platform/files/Directories.h"
#include "orbiq/services/platform/host/HostApplication.h"

namespace orbiq {
namespace {

// Far above what a full queue takes, for reading and writing.
constexpr std::size_t kLargestFile = 64U << 20U;

constexpr const char* kAsideSuffix = ".unread";

/// In the log's language, whatever locale the host has set.
std::string causeOf(int failure) {
  const char* const text = strerrordesc_np(failure);
  return text != nullptr ? text : "error " + std::to_string(failure);
}

template <class Text>
void warn(const Text& text) {
  orbiqLogger::log_withMode(text, LoggingModeWarning);
}

constexpr std::array kRequestClasses{&orbiqRequest::kArchivedClass,
                                     &orbiqClearCache::kArchivedClass};

}  // namespace

RequestsFile::RequestsFile(std::string path)
    : _path(std::move(path)), _lock(_path + ".lock"), _file(_path) {}

RequestQueue RequestsFile::load() {
  int failure = 0;
  if (auto queue = read(failure)) {
    _mustMoveAside = false;
    return *std::move(queue);
  }
  if (failure == 0) return {};
  _mustMoveAside = true;
  struct stat status{};
  if (lstat(_path.c_str(), &status) != 0 && errno == ENOENT) return {};
  warn([&] {
    return "The saved requests can't be read: " + causeOf(failure) + "; before the next save " +
           _path + " becomes " + _path + kAsideSuffix;
  });
  return {};
}

std::optional<RequestQueue> RequestsFile::read(int& failure) try {
  if (isHeldByAnotherProcess()) return {};
  if (_lock.state() != FileLock::State::Held) {
    failure = _lock.failure();
    return {};
  }
  const std::optional<std::string> bytes = readFile(_path, kLargestFile, &failure);
  if (!bytes) return {};
  const auto requests = KeyedUnarchiver::unarchiveArray(*bytes, kRequestClasses);
  if (!requests) return {};
  RequestQueue queue;
  for (const std::shared_ptr<Archivable>& request : *requests) {
    queue.push_back(std::static_pointer_cast<orbiqRequest>(request));
  }
  return queue;
} catch (const std::bad_alloc&) {
  failure = ENOMEM;
  return {};
}

void RequestsFile::save(const RequestQueue& queue) {
  if (isHeldByAnotherProcess()) return;
  int failure = write(queue);
  if (failure == ENOENT) {
    failure = makeDirectories(_path.substr(0, _path.rfind('/')));
    if (isHeldByAnotherProcess()) return;
    if (failure == 0) failure = write(queue);
  }
  report(failure);
}

int RequestsFile::write(const RequestQueue& queue) try {
  // Without the lock, another process may be writing.
  if (_lock.state() != FileLock::State::Held) return _lock.failure();
  if (_mustMoveAside) {
    if (rename(_path.c_str(), (_path + kAsideSuffix).c_str()) != 0 && errno != ENOENT) return errno;
    _mustMoveAside = false;
  }
  if (!_archiver.isWhole()) _archiver.encode({queue.begin(), queue.end()});
  if (_archiver.bytes().size() > kLargestFile) return EFBIG;
  const bool synced = HostApplication::current().durability == Durability::PowerLoss;
  const int failure = _file.replace(_archiver.bytes(), _archiver.changedPages(), synced);
  _archiver.pagesTaken();
  if (failure == 0) _isUnsynced = !synced;
  return failure;
} catch (const std::bad_alloc&) {
  return ENOMEM;
} catch (const std::length_error&) {
  return EFBIG;
}

void RequestsFile::sync() {
  if (!_isUnsynced) return;
  _isUnsynced = false;
  // It says nothing of whether saving works again, or why it does not.
  const int failure = syncFile(_path);
  if (failure != 0 && _lastFailure == 0) report(failure);
}

bool RequestsFile::isHeldByAnotherProcess() {
  const bool wasHeld = _lock.state() == FileLock::State::Held;
  if (_lock.hold() != FileLock::State::HeldByAnother) return false;
  if (!std::exchange(_saidThatAnotherHasIt, true)) {
    warn([&] {
      return "Another process of this application has the requests file " + _path + "; this one " +
             (wasHeld ? "has lost it" : "starts without it") + " and saves nothing";
    });
  }
  return true;
}

void RequestsFile::report(int failure) {
  if (failure == _lastFailure) return;
  _lastFailure = failure;
  warn([&] {
    if (failure == 0) return "The requests are saved again to " + _path;
    return "The requests can't be saved to " + _path + ": " + causeOf(failure);
  });
}

}  // namespace orbiq
