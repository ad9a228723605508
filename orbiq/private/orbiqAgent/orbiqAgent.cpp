// The agent's life.
#include "orbiq/private/orbiqAgent/orbiqAgent.h"

#include <exception>
#include <new>
#include <string>

#include "orbiq/private/orbiqAgent/HandlerWork.h"
#include "orbiq/private/orbiqAgent/HitLedger.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/ForkGuard.h"
#include "orbiq/services/platform/HttpClient.h"
#include "orbiq/services/platform/NeverDestroyed.h"
#include "orbiq/services/platform/SerialQueue.h"

namespace {

orbiq::HitLedger* onlyLedger() {
  static orbiq::NeverDestroyed<orbiq::HitLedger> ledger;
  return &*ledger;
}

orbiq::HandlerWork* onlyHandlerWork() {
  static orbiq::NeverDestroyed<orbiq::HandlerWork> work;
  return &*work;
}

}  // namespace

orbiqAgent& orbiqAgent::sharedAgent() {
  static orbiq::NeverDestroyed<orbiqAgent> agent;
  (*agent).start();
  return *agent;
}

// Takes no memory, so that there is an agent in any case.
orbiqAgent::orbiqAgent() noexcept : ledger(onlyLedger()), handlerWork(onlyHandlerWork()) {}

// For completeness: the loop on "orbiqRequestSender" keeps the agent as long as the process lives.
orbiqAgent::~orbiqAgent() {
  if (reachability) reachability->stopNotifier();
  auto& center = orbiq::NotificationCenter::defaultCenter();
  center.removeObserver(this, korbiqReachabilityChangedNotification);
  center.removeObserver(this, orbiq::UIApplicationWillEnterForegroundNotification);
}

void orbiqAgent::start() try {
  // The agent of a forked child does nothing, and leaves the parent's file alone.
  if (isStarted.load(std::memory_order_acquire) || isForkedAway()) return;
  const orbiq::Lock lock(startLock);
  if (isStarted.load(std::memory_order_relaxed)) return;
  makeParts();
  isStarted.store(true, std::memory_order_release);
} catch (const std::exception& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
}

// Whatever can fail comes before others can find the agent: before observers and threads.
void orbiqAgent::makeParts() {
  orbiq::HostApplication::settle();
  const orbiq::String serverProblem = orbiq::HostApplication::authorizationServerProblem();
  if (!requestSender && !serverProblem.isNull()) {
    orbiqLogger::log_withMode(
        [&] { return "No hit can be authorized: " + serverProblem.toStdString(); },
        orbiq::LoggingModeError);
  }
  orbiq::prepareHttpForProcess();
  orbiq::armForkGuard();

  if (!reachability) reachability = orbiqReachability::reachabilityForInternetConnection();
  if (!reachability) throw std::bad_alloc();
  if (!requestSender) {
    requestSender = std::make_unique<orbiq::SerialQueue>(
        "orbiqRequestSender", std::function<void()>(), orbiq::WorkKind::Background);
  }
  if (!requestHandler) {
    requestHandler = std::make_unique<orbiq::SerialQueue>(
        "orbiqRequestHandler", [this] { rest(); }, orbiq::WorkKind::Background);
  }
  {
    const orbiq::Lock lock(requestsProtector);
    if (!requestsFile) requestsFile = std::make_unique<orbiq::RequestsFile>();
    if (!requestQueue) loadRequests();
  }
  observeAndHandleRequests();
  isNotified = reachability->startNotifier();
}

void orbiqAgent::observeAndHandleRequests() {
  const std::string changed = korbiqReachabilityChangedNotification;
  const std::string foreground = orbiq::UIApplicationWillEnterForegroundNotification;
  auto& center = orbiq::NotificationCenter::defaultCenter();
  try {
    const bool observes = center.addObserver(this, changed, [this](const auto& posted) {
      reachabilityStatusChanged(posted);
    }) && center.addObserver(this, foreground, [this](const auto& posted) {
      applicationWillEnterForeground(posted);
    });
    if (!observes) throw std::bad_alloc();
    requestSender->async([this] { handleRequests(); });
  } catch (const std::bad_alloc&) {
    center.removeObserver(this, changed);
    center.removeObserver(this, foreground);
    throw;
  }
}

// What could not be had when it was first asked for: the sending thread, whose one task gets no
// successor that could start it, and the news of the network.
void orbiqAgent::resume() {
  requestSender->resume();
  if (isNotified) return;
  const orbiq::Lock lock(startLock);
  if (!isNotified) isNotified = reachability->startNotifier();
}

std::int64_t orbiqAgent::getPartialID() {
  if (isForkedAway()) return 0;
  const orbiq::Lock lock(partialIDLocker);
  return _partialID++;
}

orbiq::Statistics orbiqAgent::statistics() const {
  return isForkedAway() ? orbiq::Statistics() : ledger->statistics();
}

bool orbiqAgent::isForkedAway() {
  if (!orbiq::inForkedChild()) return false;
  if (orbiq::firstTimeInForkedChild()) {
    orbiqLogger::log_withMode(
        "This process was forked from one that uses the library: its hits are not counted",
        orbiq::LoggingModeError);
  }
  return true;
}
