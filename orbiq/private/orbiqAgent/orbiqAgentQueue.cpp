// The agent's queue and its file.
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "orbiq/private/orbiqAgent/HitLedger.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/Paths.h"

namespace {

bool isMarker(const orbiqRequest& request) {
  return dynamic_cast<const orbiqClearCache*>(&request) != nullptr;
}

bool isStreaming(const orbiqRequest& request) {
  return request.requestType() != orbiq::RequestTypeAudience;
}

// Both never destroyed: the sending thread outlives the process's static objects.
const std::string& requestsDirectory() {
  static const auto* const path = new std::string(orbiq::Paths::libraryDirectory() + "/orbiqCache");
  return *path;
}

const std::string& requestsPath() {
  static const auto* const path = new std::string(requestsDirectory() + "/requests.ser");
  return *path;
}

void logQueueLength(std::size_t length) {
  orbiqLogger::log_withMode(
      [&] { return "We have now " + std::to_string(length) + " request(s) to handle"; },
      orbiq::LoggingModeInfo);
}

}  // namespace

orbiq::String orbiqAgent::requestsFilePath() const {
  struct stat status{};
  if (::lstat(requestsDirectory().c_str(), &status) != 0) {
    orbiq::Paths::makeDirectories(requestsDirectory());  // what fails here shows at the save
  }
  return requestsPath();
}

void orbiqAgent::loadRequests() {
  orbiqLogger::log_withMode("Loading requests from cache", orbiq::LoggingModeInfo);
  for (const auto& request : requestsFile->load(requestsFilePath().toStdString())) {
    if (!isMarker(*request)) ledger->countAccepted();
    enqueue(request);
  }
  // Audience requests of an earlier process are not sent late. That is meant.
  discardAudienceRequests(orbiq::HitFate::DiscardedAtStart);
  if (!requestQueue.empty()) enqueue(std::make_shared<orbiqClearCache>());
}

void orbiqAgent::saveRequests() {
  orbiqLogger::log_withMode("Saving requests to cache", orbiq::LoggingModeInfo);
  requestsFile->save(requestsPath(), requestQueue);
}

void orbiqAgent::rest() {
  const orbiq::Lock lock(requestsProtector);
  requestsFile->rest();
}

void orbiqAgent::countRefusedHit() {
  ledger->countAccepted();
  ledger->countFate(orbiq::HitFate::Refused);
}

void orbiqAgent::addRequestToQueue(std::shared_ptr<orbiqRequest> request) {
  if (!request || isForkedAway()) return;
  ledger->additionBegins(!isMarker(*request));
  requestHandler.async([this, request = std::move(request)] {
    requestSender.resume();  // its one task gets no successor that could start a thread for it
    orbiqLogger::log_withMode("Adding a request in queue", orbiq::LoggingModeInfo);
    const orbiq::Lock lock(requestsProtector);
    ledger->additionEnds();
    append(request);
    saveRequests();
    logQueueLength(requestQueue.size());
    requestsProtector.signal();
  });
}

void orbiqAgent::append(const std::shared_ptr<orbiqRequest>& request) {
  if (pendingMarkers == 0) {
    request->setAuth(orbiqAuthManager::manager().authFromCacheForTagger(request->taggerID()));
    if (request->shouldRenewSessionAfter()) renewSession(*request);
  }
  enqueue(request);
  if (requestQueue.size() >= orbiq::SendingRules::kQueueBound) {
    if (!isMarker(*requestQueue.front())) ledger->countFate(orbiq::HitFate::PushedOut);
    dequeue();
  }
}

void orbiqAgent::enqueue(const std::shared_ptr<orbiqRequest>& request) {
  requestQueue.push_back(request);
  if (isMarker(*request)) ++pendingMarkers;
  if (isStreaming(*request)) ++pendingStreaming;
}

void orbiqAgent::dequeue() {
  if (isMarker(*requestQueue.front())) --pendingMarkers;
  if (isStreaming(*requestQueue.front())) --pendingStreaming;
  requestQueue.pop_front();
}

std::size_t orbiqAgent::removeIf(const std::function<bool(const orbiqRequest&)>& isUnwanted) {
  const std::size_t before = requestQueue.size();
  // Nearly always it is the head alone, for which the others need not be moved up.
  while (!requestQueue.empty() && isUnwanted(*requestQueue.front())) dequeue();
  std::size_t markers = 0;
  std::size_t streaming = 0;
  const auto keptEnd = std::remove_if(requestQueue.begin(), requestQueue.end(),
                                      [&](const std::shared_ptr<orbiqRequest>& request) {
                                        if (!isUnwanted(*request)) return false;
                                        if (isMarker(*request)) ++markers;
                                        if (isStreaming(*request)) ++streaming;
                                        return true;
                                      });
  pendingMarkers -= markers;
  pendingStreaming -= streaming;
  for (auto left = requestQueue.end() - keptEnd; left > 0; --left) requestQueue.pop_back();
  return before - requestQueue.size();
}

void orbiqAgent::renewSession(const orbiqRequest& request) {
  orbiqAuthManager::manager().forgetAuthForTagger(request.taggerID());
  orbiqLogger::log_withMode("ShouldRenewSession", orbiq::LoggingModeInfo);
}

void orbiqAgent::removeRequestFromQueue(const std::shared_ptr<orbiqRequest>& request,
                                        std::optional<orbiq::HitFate> fate) {
  if (!request) return;
  orbiqLogger::log_withMode("Removing request from queue", orbiq::LoggingModeInfo);
  const std::size_t removed =
      removeIf([&](const orbiqRequest& queued) { return request->isEqual(&queued); });
  for (std::size_t i = 0; fate && i < removed; ++i) ledger->countFate(*fate);
  saveRequests();
  logQueueLength(requestQueue.size());
}

void orbiqAgent::discardAudienceRequests(orbiq::HitFate fate) {
  removeIf([&](const orbiqRequest& request) {
    if (!orbiq::SendingRules::isDroppedLate(request.requestType())) return false;
    if (!isMarker(request)) ledger->countFate(fate);
    return true;
  });
}
