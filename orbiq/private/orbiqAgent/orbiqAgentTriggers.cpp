// What wakes the agent's sending loop from outside.
#include "orbiq/private/orbiqAgent/AgentState.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"

void orbiqAgent::reachabilityStatusChanged(const orbiq::Notification& /*notification*/) {
  if (state.isStarted) state.reachabilityStatusChanged();
}

void orbiqAgent::applicationWillEnterForeground(const orbiq::Notification& /*notification*/) {
  if (state.isStarted) state.applicationWillEnterForeground();
}

void orbiqAgent::State::reachabilityStatusChanged() {
  if (isForkedAway()) return;
  orbiqLogger::log_withMode("Connection status changed - we check if we can send any request",
                            orbiq::LoggingModeInfo);
  if (!isReachable()) return;
  giveWork({.trigger = orbiq::Trigger::NetworkReturn});
}

void orbiqAgent::State::applicationWillEnterForeground() {
  if (isForkedAway()) return;
  orbiqLogger::log_withMode(
      "Application entered foreground - we check if any requests should be sent",
      orbiq::LoggingModeInfo);
  giveWork({.trigger = orbiq::Trigger::Foreground});
}

void orbiqAgent::State::lookAgain(orbiq::Trigger trigger) {
  const orbiq::Lock lock(requestsProtector);
  // Audience requests would be counted too late. A pending marker, which has their type, goes with
  // them. The file catches up at the next save.
  if (trigger == orbiq::Trigger::NetworkReturn) discardAudienceRequests();
  requestsProtector.signal();
}
