#include <orbiq/orbiq.h>

#include <chrono>
#include <iostream>

/// Sends one hit. The authorization server is that of the environment:
///
///     ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:8080/auth/ orbiq-first-hit
int main() {
  orbiq::HostApplication::describe({
      .bundleIdentifier = "tv.example.player",
      .bundleName = "Player",
      .shortVersion = "4.2",
  });
  auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("ABC");
  tagger->sendHit();  // returns at once

  // A program that goes on running is done here. This one would end before its hit has left.
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  agent.flush(std::chrono::seconds(10));
  const orbiq::Statistics statistics = agent.statistics();
  std::cout << "accepted " << statistics.accepted << ", sent " << statistics.sent << ", pending "
            << statistics.pending << ", last failure " << statistics.lastFailure.description()
            << "\n";
  return statistics.sent == statistics.accepted - statistics.discardedAtStart ? 0 : 1;
}
