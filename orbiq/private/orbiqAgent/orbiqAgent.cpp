// The agent's life, and what others call.
#include "orbiq/private/orbiqAgent/orbiqAgent.h"

#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "orbiq/private/orbiqAgent/AgentState.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/base/UntilDone.h"
#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/log/ForkedAway.h"
#include "orbiq/services/platform/log/InLogSink.h"
#include "orbiq/services/platform/threads/Thread.h"

orbiqAgent& orbiqAgent::sharedAgent() {
  static constinit orbiqAgent agent;  // has nothing to destroy
  // The agent of a forked child does nothing, and leaves the parent's file alone.
  if (!isForkedAway()) State::ofProcess().start();
  return agent;
}

orbiqAgent::State& orbiqAgent::State::ofProcess() {
  static orbiq::NeverDestroyed<State> only;
  return *only;
}

// For completeness: the loop on "orbiqRequestSender" keeps the agent as long as the process lives.
orbiqAgent::State::~State() {
  if (reachability) reachability->stopNotifier();
  auto& center = orbiq::NotificationCenter::defaultCenter();
  center.removeObserver(this, korbiqReachabilityChangedNotification);
  center.removeObserver(this, orbiq::UIApplicationWillEnterForegroundNotification);
}

void orbiqAgent::State::start() try {
  if (isStarted.load(std::memory_order_acquire)) return;
  const orbiq::Lock lock(startLock);
  if (isStarted.load(std::memory_order_relaxed)) return;
  makeParts();
  isStarted.store(true, std::memory_order_release);
} catch (const std::exception& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
}

// Whatever can fail comes before others can find the agent: before observers and threads.
void orbiqAgent::State::makeParts() {
  orbiq::HostApplication::settle();
  const orbiq::String serverProblem = orbiq::HostApplication::authorizationServerProblem();
  if (serverProblem.isSameObjectAs(orbiq::String::outOfMemory())) throw std::bad_alloc();
  if (!requestSender && !serverProblem.isNull()) {
    orbiqLogger::log_withMode(
        [&] { return "No hit can be authorized: " + serverProblem.toStdString(); },
        orbiq::LoggingModeError);
  }
  orbiq::prepareHttpForProcess();
  orbiq::armForkGuard();
  // Before the sender stops. What waits longer than the process's exit would hold it up.
  const bool isTold = orbiq::untilDone([] {
    return std::atexit([] {
             if (!orbiq::inForkedChild()) ofProcess().ledger.endWaits();
           }) == 0;
  });
  if (!isTold) throw std::bad_alloc();

  if (!reachability) reachability = orbiqReachability::reachabilityForInternetConnection();
  if (!reachability) throw std::bad_alloc();
  if (!requestSender) {
    requestSender.emplace("orbiqRequestSender", std::function<void()>(),
                          orbiq::WorkKind::Background);
  }
  if (!requestHandler) {
    requestHandler.emplace("orbiqRequestHandler", [this] { rest(); }, orbiq::WorkKind::Background);
  }
  {
    const orbiq::Lock lock(requestsProtector);
    if (!requestQueue) loadRequests();
  }
  observeAndHandleRequests();
  isNotified = reachability->startNotifier();
}

void orbiqAgent::State::observeAndHandleRequests() {
  const std::string changed = korbiqReachabilityChangedNotification;
  const std::string foreground = orbiq::UIApplicationWillEnterForegroundNotification;
  auto& center = orbiq::NotificationCenter::defaultCenter();
  try {
    const bool observes =
        center.addObserver(this, changed, [this](const auto&) { reachabilityStatusChanged(); }) &&
        center.addObserver(this, foreground,
                           [this](const auto&) { applicationWillEnterForeground(); });
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
void orbiqAgent::State::resume() {
  noteThread(lacksSender, requestSender->resume());
  if (isNotified) return;
  const orbiq::Lock lock(startLock);
  if (!isNotified) isNotified = reachability->startNotifier();
}

void orbiqAgent::addRequestToQueue(std::shared_ptr<orbiqRequest> request) {
  if (!isForkedAway()) State::ofProcess().addRequestToQueue(std::move(request));
}

std::int64_t orbiqAgent::getPartialID() {
  if (isForkedAway()) return 0;
  State& state = State::ofProcess();
  const orbiq::Lock lock(state.partialIDLocker);
  return state._partialID++;
}

orbiq::Statistics orbiqAgent::statistics() const {
  return isForkedAway() ? orbiq::Statistics() : State::ofProcess().ledger.statistics();
}

bool orbiqAgent::flush(std::chrono::milliseconds timeout) {
  if (isForkedAway() || orbiq::isLibraryThread() || orbiq::isInLogSink()) return false;
  State& state = State::ofProcess();
  if (state.isStarted) {
    state.noteThread(state.lacksHandler, state.requestHandler->resume());
    state.noteThread(state.lacksSender, state.requestSender->resume());
  }
  return state.ledger.waitUntilSettled(timeout);
}

void orbiqAgent::countLostHit() {
  if (!isForkedAway()) State::ofProcess().ledger.countHit(orbiq::HitFate::GivenUp);
}

bool orbiqAgent::isForkedAway() { return orbiq::isForkedAway(); }
