// The agent's queue and its file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
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

namespace {

bool isMarker(const orbiqRequest& request) {
  return dynamic_cast<const orbiqClearCache*>(&request) != nullptr;
}

std::string requestsDirectory() { return orbiq::libraryDirectory() + "/orbiqCache"; }

std::string requestsPath() { return requestsDirectory() + "/requests.ser"; }

void logQueueLength(std::size_t length) {
  orbiqLogger::log_withMode(
      [&] { return "We have now " + std::to_string(length) + " request(s) to handle"; },
      orbiq::LoggingModeInfo);
}

}  // namespace

orbiq::String orbiqAgent::requestsFilePath() const try {
  orbiq::makeDirectories(requestsDirectory());
  return requestsPath();
} catch (const std::bad_alloc& error) {
  return orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError), nullptr;
}

void orbiqAgent::State::loadRequests() {
  orbiqLogger::log_withMode("Loading requests from cache", orbiq::LoggingModeInfo);
  orbiq::RequestQueue kept;
  std::uint64_t accepted = 0;
  std::uint64_t discarded = 0;
  orbiq::makeDirectories(requestsDirectory());  // what fails here shows at the save
  if (!requestsFile) requestsFile.emplace(requestsPath());
  for (const auto& request : requestsFile->load()) {
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

  // Of all that there will ever be, so that an addition cannot fail for want of it.
  numbers.reserve(std::max(kept.size(), orbiq::SendingRules::kMostRequests) + 1);
  numbers.assign(kept.size(), 0);
  if (isMarked) numbers.back() = orbiq::HitLedger::kNoHit;
  requestQueue = std::move(kept);
  ledger.countLoaded(accepted, discarded);
}

// The only place that writes the file: after every addition (`add`) and after every removal by the
// sending loop (`removeRequestFromQueue`). Whatever else changes the queue or a request, such as a
// failed attempt or the network's return, is in the file from the next of these on.
void orbiqAgent::State::saveRequests() try {
  orbiqLogger::log_withMode("Saving requests to cache", orbiq::LoggingModeInfo);
  requestsFile->save(*requestQueue);
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
  const auto survives = [](const auto& request) {
    return !orbiq::SendingRules::isDroppedLate(request->requestType());
  };
  if (std::ranges::any_of(*requestQueue, survives)) requestsFile->sync();
}

void orbiqAgent::State::addRequestToQueue(std::shared_ptr<orbiqRequest> request) {
  if (!request) return;
  const orbiq::HitLedger::Number number = ledger.additionBegins(!isMarker(*request));
  if (isStarted.load(std::memory_order_acquire) &&
      giveWork({.added = std::move(request), .number = number})) {
    return;
  }
  ledger.additionEnds();
  ledger.countFate(orbiq::HitFate::GivenUp, number);
}

bool orbiqAgent::State::giveWork(const orbiq::HandlerWork::Item& item) try {
  const orbiq::HandlerWork::Given given = handlerWork.give(item);
  if (const auto& [request, number, trigger] = given.pushedOut; request) {
    ledger.additionEnds();
    ledger.countFate(orbiq::HitFate::PushedOut, number);
  }
  if (!given.needsTaker) {
    noteThread(lacksHandler,
               requestHandler->resume());  // the one who was sent for may have got no thread
    return true;
  }
  try {
    noteThread(lacksHandler, requestHandler->async([this] { work(); }));
  } catch (const std::bad_alloc&) {
    handlerWork.takerFailed();  // the next item sends for another
  }
  return true;
} catch (const std::bad_alloc& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
  return false;
}

void orbiqAgent::State::noteThread(std::atomic<bool>& isMissing, int error) try {
  if (isMissing.load(std::memory_order_relaxed) == (error != 0)) return;
  if (isMissing.exchange(error != 0) == (error != 0)) return;
  if (error == 0) {
    orbiqLogger::log_withMode("There is a thread again", orbiq::LoggingModeWarning);
    return;
  }
  const char* const cause = strerrordesc_np(error);
  const std::string text =
      "no thread can be started: " + (cause != nullptr ? cause : std::to_string(error));
  ledger.noteFailure(text);
  orbiqLogger::log_withMode("The requests wait, as " + text, orbiq::LoggingModeWarning);
} catch (const std::bad_alloc&) {
  isMissing = error == 0;  // told at the next use
}

void orbiqAgent::State::work() {
  resume();
  while (const auto item = handlerWork.take()) {
    if (item->added) {
      add(*item);
    } else {
      lookAgain(item->trigger);
    }
  }
}

void orbiqAgent::State::add(const orbiq::HandlerWork::Item& item) {
  orbiqLogger::log_withMode("Adding a request in queue", orbiq::LoggingModeInfo);
  const orbiq::Lock lock(requestsProtector);
  ledger.additionEnds();
  if (!append(item)) return ledger.countFate(orbiq::HitFate::GivenUp, item.number);
  saveRequests();
  countDequeued(orbiq::HitFate::PushedOut);  // after the save, or a flush would end too early
  logQueueLength(requestQueue->size());
  requestsProtector.signal();
}

bool orbiqAgent::State::append(const orbiq::HandlerWork::Item& item) try {
  const std::shared_ptr<orbiqRequest>& request = item.added;
  isQuiet = false;
  if (std::ranges::find(numbers, orbiq::HitLedger::kNoHit) == numbers.end()) {  // no marker
    request->setAuth(orbiqAuthManager::manager().authFromCacheForTagger(request->taggerID()));
    if (request->shouldRenewSessionAfter()) renewSession(*request);
    requestsFile->changed(*request);  // it may be in the queue already
  }
  requestQueue->push_back(request);
  numbers.push_back(item.number);
  requestsFile->added(request);
  if (requestQueue->size() > orbiq::SendingRules::kMostRequests) dequeue(requestQueue->begin());
  return true;
} catch (const std::bad_alloc& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
  return false;
}

orbiq::RequestQueue::iterator orbiqAgent::State::dequeue(orbiq::RequestQueue::iterator request) {
  const std::ptrdiff_t index = request - requestQueue->begin();
  requestsFile->removed(static_cast<std::size_t>(index));
  const auto number = numbers.begin() + index;
  std::rotate(number, number + 1, numbers.end());
  return requestQueue->erase(request);
}

void orbiqAgent::State::countDequeued(orbiq::HitFate fate, const orbiq::String& failure) {
  for (; numbers.size() > requestQueue->size(); numbers.pop_back()) {
    ledger.countFate(fate, numbers.back(), failure);
  }
}

template <class IsUnwanted>
void orbiqAgent::State::removeIf(const IsUnwanted& isUnwanted) {
  for (auto each = requestQueue->begin(); each != requestQueue->end();) {
    if (isUnwanted(**each)) {
      each = dequeue(each);
    } else {
      ++each;
    }
  }
}

void orbiqAgent::State::renewSession(const orbiqRequest& request) {
  orbiqAuthManager::manager().forgetAuthForTagger(request.taggerID());
  orbiqLogger::log_withMode("ShouldRenewSession", orbiq::LoggingModeInfo);
}

void orbiqAgent::State::removeRequestFromQueue(const std::shared_ptr<orbiqRequest>& request,
                                               orbiq::HitFate fate, const orbiq::String& failure) {
  if (!request) return;
  orbiqLogger::log_withMode("Removing request from queue", orbiq::LoggingModeInfo);
  removeIf([&](const orbiqRequest& queued) { return request->isEqual(&queued); });
  saveRequests();
  // Only now: whoever waits for the hits may end the process, and what the file still has is sent
  // again.
  countDequeued(fate, failure);
  logQueueLength(requestQueue->size());
}

void orbiqAgent::State::lookAgain(orbiq::Trigger trigger) {
  const orbiq::Lock lock(requestsProtector);
  if (trigger == orbiq::Trigger::NetworkReturn) {
    // Audience requests would be counted too late. A pending marker, which has their type, goes
    // with them. The file catches up at the next save.
    removeIf([](const orbiqRequest& request) {
      return orbiq::SendingRules::isDroppedLate(request.requestType());
    });
    countDequeued(orbiq::HitFate::DiscardedAtNetworkReturn);
  }
  requestsProtector.signal();
}
