#include "orbiq/private/orbiqAgent/RequestsFile.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/HostApplication.h"
#include "orbiq/services/platform/KeyedUnarchiver.h"
#include "orbiq/services/platform/Paths.h"

namespace orbiq {
namespace {

// Far above what a full queue takes, for reading and writing.
constexpr std::size_t kLargestFile = 64U << 20U;

constexpr std::array kRequestClasses{&orbiqRequest::kArchivedClass,
                                     &orbiqClearCache::kArchivedClass};

std::shared_ptr<const orbiqRequest> sampleRequest(bool isStreaming, bool hasDevice) {
  Parameters parameters;
  for (const char* const key : {"serial", "tn", "v", "n"}) parameters.emplace(key, "");
  if (hasDevice) parameters.emplace("did", "");
  if (isStreaming) {
    for (const char* const key : {"cmsPS", "cmsRK"}) parameters.emplace(key, "");
  }
  auto request = std::make_shared<orbiqRequest>(
      std::make_shared<const Parameters>(std::move(parameters)), RequestTypeStreaming,
      SendingModeHost, String(), std::make_shared<orbiqTaggerID>(String(), 0, false));
  request->setAuth(orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
      orbiqSession::orbiqSessionWithSerial_withCmsVI({}, {}),
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL({}, AccessModeFull, {}),
      false));
  return request;
}

}  // namespace

KeyedArchiver requestArchiver() {
  // With the parameters that the library's own hits have.
  const std::array samples{sampleRequest(true, true), sampleRequest(true, false),
                           sampleRequest(false, true), sampleRequest(false, false)};
  const orbiqClearCache marker;
  return KeyedArchiver(std::array<const Archivable*, 5>{
      samples[0].get(), samples[1].get(), samples[2].get(), samples[3].get(), &marker});
}

RequestQueue RequestsFile::load(const std::string& path) {
  RequestQueue queue;
  if (isAnothers(path)) return queue;
  const std::optional<std::string> bytes = readFile(path, kLargestFile);
  if (!bytes) return queue;
  const auto requests = KeyedUnarchiver::unarchiveArray(*bytes, kRequestClasses);
  if (!requests) return queue;
  for (const std::shared_ptr<Archivable>& request : *requests) {
    queue.push_back(std::static_pointer_cast<orbiqRequest>(request));
  }
  return queue;
}

void RequestsFile::save(const std::string& path, const RequestQueue& queue) {
  if (isAnothers(path)) return;
  int failure = write(path, queue);
  if (failure == ENOENT && Paths::makeDirectories(path.substr(0, path.rfind('/'))) == 0) {
    failure = write(path, queue);
  }
  report(path, failure);
}

int RequestsFile::write(const std::string& path, const RequestQueue& queue) try {
  // Without the lock, another process may be writing.
  if (_lock.state() != FileLock::State::Held) return _lock.failure();
  _archiver.beginRootArray();
  for (const std::shared_ptr<orbiqRequest>& request : queue) _archiver.addElement(*request);
  const KeyedArchiver::Bytes bytes = _archiver.finish();
  const std::size_t kept = std::exchange(_lastReachedFile, false) ? bytes.kept : 0;
  if (bytes.all.size() > kLargestFile) return EFBIG;
  const bool synced = HostApplication::current().durability == Durability::PowerLoss;
  const int failure = _file.replace(path, bytes.all, kept, synced);
  _lastReachedFile = true;
  if (failure == 0) _isUnsynced = !synced;
  return failure;
} catch (const std::bad_alloc&) {
  return ENOMEM;
} catch (const std::length_error&) {
  return EFBIG;
}

void RequestsFile::sync(const std::string& path) {
  if (!_isUnsynced) return;
  _isUnsynced = false;
  // It says nothing of whether saving works again, or why it does not.
  const int failure = syncFile(path);
  if (failure != 0 && _lastFailure == 0) report(path, failure);
}

bool RequestsFile::isAnothers(const std::string& path) {
  if (_lock.tryLock(path + ".lock") != FileLock::State::HeldByAnother) return false;
  if (!_saidThatAnotherHasIt) {
    _saidThatAnotherHasIt = true;
    orbiqLogger::log_withMode("Another process of this application has the requests file " + path +
                                  "; this one starts without it and saves nothing",
                              LoggingModeWarning);
  }
  return true;
}

void RequestsFile::report(const std::string& path, int failure) {
  if (failure == _lastFailure) return;
  _lastFailure = failure;
  orbiqLogger::log_withMode(failure == 0 ? "The requests are saved again to " + path
                                         : "The requests can't be saved to " + path + ": " +
                                               std::generic_category().message(failure),
                            LoggingModeWarning);
}

}  // namespace orbiq
