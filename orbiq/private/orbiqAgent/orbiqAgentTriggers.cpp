// What wakes the agent's sending loop from outside.
#include "orbiq/private/orbiqAgent/AgentState.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"

void orbiqAgent::reachabilityStatusChanged(const orbiq::Notification& /*notification*/) {
  State& state = State::ofProcess();
  if (state.isStarted) state.reachabilityStatusChanged();
}

void orbiqAgent::applicationWillEnterForeground(const orbiq::Notification& /*notification*/) {
  State& state = State::ofProcess();
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
