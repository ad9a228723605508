// The agent's life.
#include "orbiq/private/orbiqAgent/orbiqAgent.h"

#include "orbiq/private/orbiqAgent/HitLedger.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/ForkGuard.h"
#include "orbiq/services/platform/HttpClient.h"

orbiqAgent& orbiqAgent::sharedAgent() {
  static auto* const agent = new orbiqAgent();  // never destroyed
  return *agent;
}

orbiqAgent::orbiqAgent()
    : requestsFile(std::make_unique<orbiq::RequestsFile>()),
      ledger(std::make_unique<orbiq::HitLedger>()) {
  // The agent of a forked child does nothing, and leaves the parent's file alone.
  if (isForkedAway()) return;
  orbiq::HostApplication::settle();
  const orbiq::String serverProblem = orbiq::HostApplication::authorizationServerProblem();
  if (!serverProblem.isNull()) {
    orbiqLogger::log_withMode("No hit can be authorized: " + serverProblem.toStdString(),
                              orbiq::LoggingModeError);
  }
  orbiq::prepareHttpForProcess();
  orbiq::armForkGuard();

  reachability = orbiqReachability::reachabilityForInternetConnection();
  observe(korbiqReachabilityChangedNotification, &orbiqAgent::reachabilityStatusChanged);
  observe(orbiq::UIApplicationWillEnterForegroundNotification,
          &orbiqAgent::applicationWillEnterForeground);
  orbiqSerialAccess.reserve(3);
  orbiqAudienceTaggers.reserve(3);
  {
    // The observers may be called already.
    const orbiq::Lock lock(requestsProtector);
    loadRequests();
  }
  requestSender.async([this] { handleRequests(); });
  if (reachability) reachability->startNotifier();
}

// For completeness: the loop on "orbiqRequestSender" keeps the agent as long as the process lives.
orbiqAgent::~orbiqAgent() {
  if (reachability) reachability->stopNotifier();
  auto& center = orbiq::NotificationCenter::defaultCenter();
  center.removeObserver(this, korbiqReachabilityChangedNotification);
  center.removeObserver(this, orbiq::UIApplicationWillEnterForegroundNotification);
}

void orbiqAgent::observe(const char* notification,
                         void (orbiqAgent::*operation)(const orbiq::Notification&)) {
  orbiq::NotificationCenter::defaultCenter().addObserver(
      this, notification,
      [this, operation](const orbiq::Notification& posted) { (this->*operation)(posted); });
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
