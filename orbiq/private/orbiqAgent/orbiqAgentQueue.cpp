// The agent's queue and its file.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <utility>

#include "orbiq/private/orbiqAgent/AgentState.h"
#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/files/Directories.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "orbiq/services/platform/host/Platform.h"

namespace {

bool isMarker(const orbiqRequest& request) {
  return dynamic_cast<const orbiqClearCache*>(&request) != nullptr;
}

bool isStreaming(const orbiqRequest& request) {
  return request.requestType() != orbiq::RequestTypeAudience;
}

// Both never destroyed: the sending thread outlives the process's static objects.
const std::string& requestsDirectory() {
  static const auto* const path = new std::string(orbiq::libraryDirectory() + "/orbiqCache");
  return *path;
}

const std::string& requestsPath() {
  static const auto* const path = new std::string(requestsDirectory() + "/requests.ser");
  return *path;
}

void makeRequestsDirectory() {
  struct stat status{};
  if (lstat(requestsDirectory().c_str(), &status) == 0) return;
  orbiq::makeDirectories(requestsDirectory());  // what fails here shows at the save
}

void logQueueLength(std::size_t length) {
  orbiqLogger::log_withMode(
      [&] { return "We have now " + std::to_string(length) + " request(s) to handle"; },
      orbiq::LoggingModeInfo);
}

}  // namespace

orbiq::String orbiqAgent::requestsFilePath() const try {
  makeRequestsDirectory();
  return requestsPath();
} catch (const std::bad_alloc& error) {
  return orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError), nullptr;
}

void orbiqAgent::State::loadRequests() {
  orbiqLogger::log_withMode("Loading requests from cache", orbiq::LoggingModeInfo);
  orbiq::RequestQueue kept;
  std::uint64_t accepted = 0;
  std::uint64_t discarded = 0;
  makeRequestsDirectory();
  for (const auto& request : requestsFile->load(requestsPath())) {
    const bool isHit = !isMarker(*request);
    if (isHit) ++accepted;
    // Audience requests of an earlier process would be counted too late.
    if (!orbiq::SendingRules::isDroppedLate(request->requestType())) {
      kept.push_back(request);
    } else if (isHit) {
      ++discarded;
    }
  }
  const bool isMarked = !kept.empty();
  if (isMarked) kept.push_back(std::make_shared<orbiqClearCache>());

  pendingMarkers = isMarked ? 1 : 0;
  pendingStreaming = kept.size() - pendingMarkers;
  requestQueue = std::move(kept);
  ledger.countLoaded(accepted, discarded);
}

void orbiqAgent::State::saveRequests() try {
  orbiqLogger::log_withMode("Saving requests to cache", orbiq::LoggingModeInfo);
  requestsFile->save(requestsPath(), *requestQueue);
} catch (const std::bad_alloc& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
}

void orbiqAgent::State::rest() {
  const orbiq::Lock lock(requestsProtector);
  isQuiet = true;
  requestsFile->rest();
  syncAtRest();
}

void orbiqAgent::State::syncAtRest() {
  if (pendingStreaming != 0) requestsFile->sync(requestsPath());
}

void orbiqAgent::State::addRequestToQueue(std::shared_ptr<orbiqRequest> request) {
  if (!request) return;
  const bool isHit = !isMarker(*request);
  ledger.additionBegins(isHit);
  if (isStarted.load(std::memory_order_acquire) &&
      giveWork(std::move(request), orbiq::Trigger::None)) {
    return;
  }
  ledger.additionEnds();
  if (isHit) ledger.countFate(orbiq::HitFate::GivenUp);
}

bool orbiqAgent::State::giveWork(std::shared_ptr<orbiqRequest> added, orbiq::Trigger trigger) try {
  const orbiq::HandlerWork::Given given = handlerWork.give({std::move(added), trigger});
  if (given.pushedOut) {
    ledger.additionEnds();
    if (!isMarker(*given.pushedOut)) ledger.countFate(orbiq::HitFate::PushedOut);
  }
  if (!given.needsTaker) {
    requestHandler->resume();  // the one who was sent for may have got no thread
    return true;
  }
  try {
    requestHandler->async([this] { work(); });
  } catch (const std::bad_alloc&) {
    handlerWork.takerFailed();  // the next item sends for another
  }
  return true;
} catch (const std::bad_alloc& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
  return false;
}

void orbiqAgent::State::work() {
  resume();
  for (orbiq::HandlerWork::Item item; handlerWork.take(item); item = {}) {
    if (item.added) {
      add(item.added);
    } else {
      lookAgain(item.trigger);
    }
  }
}

void orbiqAgent::State::add(const std::shared_ptr<orbiqRequest>& request) {
  orbiqLogger::log_withMode("Adding a request in queue", orbiq::LoggingModeInfo);
  const orbiq::Lock lock(requestsProtector);
  ledger.additionEnds();
  if (!append(request)) {
    if (!isMarker(*request)) ledger.countFate(orbiq::HitFate::GivenUp);
    return;
  }
  saveRequests();
  logQueueLength(requestQueue->size());
  requestsProtector.signal();
}

bool orbiqAgent::State::append(const std::shared_ptr<orbiqRequest>& request) try {
  isQuiet = false;
  if (pendingMarkers == 0) {
    request->setAuth(orbiqAuthManager::manager().authFromCacheForTagger(request->taggerID()));
    if (request->shouldRenewSessionAfter()) renewSession(*request);
  }
  enqueue(request);
  if (requestQueue->size() > orbiq::SendingRules::kMostRequests) {
    if (!isMarker(*requestQueue->front())) ledger.countFate(orbiq::HitFate::PushedOut);
    dequeue(0);
  }
  return true;
} catch (const std::bad_alloc& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
  return false;
}

void orbiqAgent::State::enqueue(const std::shared_ptr<orbiqRequest>& request) {
  requestQueue->push_back(request);
  requestsFile->added(request);
  if (isMarker(*request)) ++pendingMarkers;
  if (isStreaming(*request)) ++pendingStreaming;
}

void orbiqAgent::State::dequeue(std::size_t index) {
  const auto request = requestQueue->begin() + static_cast<std::ptrdiff_t>(index);
  if (isMarker(**request)) --pendingMarkers;
  if (isStreaming(**request)) --pendingStreaming;
  requestsFile->removed(index);
  requestQueue->erase(request);
}

template <class IsUnwanted>
std::size_t orbiqAgent::State::removeIf(const IsUnwanted& isUnwanted) {
  const std::size_t before = requestQueue->size();
  for (std::size_t index = 0; index < requestQueue->size();) {
    if (isUnwanted(*(*requestQueue)[index])) {
      dequeue(index);
    } else {
      ++index;
    }
  }
  return before - requestQueue->size();
}

void orbiqAgent::State::renewSession(const orbiqRequest& request) {
  orbiqAuthManager::manager().forgetAuthForTagger(request.taggerID());
  orbiqLogger::log_withMode("ShouldRenewSession", orbiq::LoggingModeInfo);
}

void orbiqAgent::State::removeRequestFromQueue(const std::shared_ptr<orbiqRequest>& request,
                                               std::optional<orbiq::HitFate> fate,
                                               const orbiq::String& failure) {
  if (!request) return;
  orbiqLogger::log_withMode("Removing request from queue", orbiq::LoggingModeInfo);
  const std::size_t removed =
      removeIf([&](const orbiqRequest& queued) { return request->isEqual(&queued); });
  if (fate) ledger.attemptEnds(*fate, removed, failure, orbiq::Platform::now());
  saveRequests();
  logQueueLength(requestQueue->size());
}

void orbiqAgent::State::discardAudienceRequests() {
  std::uint64_t hits = 0;
  removeIf([&](const orbiqRequest& request) {
    if (!orbiq::SendingRules::isDroppedLate(request.requestType())) return false;
    if (!isMarker(request)) ++hits;
    return true;
  });
  ledger.countFate(orbiq::HitFate::DiscardedAtNetworkReturn, hits);
}
