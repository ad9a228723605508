#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/fleet/AgentModel.h"
#include "bench/fleet/Client.h"

namespace orbiq::bench {

/// Seconds of the simulation, the end left out; empty unless told otherwise.
struct Window {
  std::uint32_t begin = 0;
  std::uint32_t end = 0;

  bool holds(Moment now) const { return now >= begin * kSecond && now < end * kSecond; }
};

/// What a client meets that a server does not answer.
enum class Failure {
  Silent,   ///< nothing: it waits for the limit of the exchange
  Refused,  ///< a closed port, at once
  Status,   ///< an answer that is none: 503
};

/// How the applications use the library. Times in seconds; those named "between" are means.
struct Behaviour {
  double betweenHits = 120;
  double betweenForegrounds = 1800;
  double betweenNetworkBreaks = 6 * 3600;
  double networkBreak = 20;
  double betweenRestarts = 6 * 3600;
  /// The first hit comes within this time.
  double firstHitWithin = 5;
  /// Of all requests.
  double streamingShare = 0.1;
  /// Of the streaming requests.
  double renewingShare = 0;
};

/// What happens to the fleet.
struct Scenario {
  std::string name;
  Window outage = {};
  Window loss = {};
  /// Every client restarts once within it.
  Window restarts = {};
};

/// How the servers answer.
struct ServerSettings {
  double answerTakes = 0.1;
  Failure failure = Failure::Silent;
  double lostShare = 0.3;
  /// How many each answers within a second; 0 for as many as come.
  std::uint32_t authorizationCapacity = 0;
  std::uint32_t hitCapacity = 0;
};

/// What reached a server, or would have, in each second.
struct Load {
  std::vector<std::uint32_t> asked;
  std::vector<std::uint32_t> answered;

  std::uint32_t peak() const;
  double mean() const;
};

/// Both servers, as a scenario has them.
class ScenarioServers final : public Servers {
 public:
  ScenarioServers(const Scenario& scenario, const ServerSettings& settings, std::uint32_t seconds);

  Answer authorize(Moment now, Random& random) override;
  Answer takeHit(Moment now, Random& random) override;

  const Load& authorizations() const { return _authorizations; }
  const Load& hits() const { return _hits; }

 private:
  Answer answer(Load& load, std::uint32_t capacity, Moment limit, Moment now, Random& random) const;

  const Scenario& _scenario;
  const ServerSettings _settings;
  Load _authorizations;
  Load _hits;
};

}  // namespace orbiq::bench
