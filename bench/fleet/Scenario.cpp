#include "bench/fleet/Scenario.h"

#include <algorithm>
#include <chrono>
#include <numeric>

#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/services/platform/http/HttpClient.h"

namespace orbiq::bench {
namespace {

Moment momentOf(double seconds) { return static_cast<Moment>(seconds * kSecond); }

Moment momentOf(std::chrono::milliseconds time) { return static_cast<Moment>(time.count()); }

}  // namespace

std::uint32_t Load::peak() const { return *std::max_element(asked.begin(), asked.end()); }

double Load::mean() const {
  return static_cast<double>(std::accumulate(asked.begin(), asked.end(), std::uint64_t{0})) /
         static_cast<double>(asked.size());
}

ScenarioServers::ScenarioServers(const Scenario& scenario, const ServerSettings& settings,
                                 std::uint32_t seconds)
    : _scenario(scenario), _settings(settings) {
  for (Load* const load : {&_authorizations, &_hits}) {
    load->asked.resize(seconds);
    load->answered.resize(seconds);
  }
}

Servers::Answer ScenarioServers::authorize(Moment now, Random& random) {
  static const Moment limit = momentOf(HttpRequest::kUsualTimeout);
  return answer(_authorizations, _settings.authorizationCapacity, limit, now, random);
}

Servers::Answer ScenarioServers::takeHit(Moment now, Random& random) {
  static const Moment limit = momentOf(SendingRules::kHitTimeout);
  return answer(_hits, _settings.hitCapacity, limit, now, random);
}

Servers::Answer ScenarioServers::answer(Load& load, std::uint32_t capacity, Moment limit,
                                        Moment now, Random& random) const {
  const std::size_t second = now / kSecond;
  ++load.asked[second];
  // What is lost on the way looks like silence, whatever the servers do when they fail.
  if (_scenario.loss.holds(now) && random.isWithin(_settings.lostShare)) return {0, limit};
  const bool isDown = _scenario.outage.holds(now);
  const bool isFull = capacity != 0 && load.answered[second] >= capacity;
  const Moment takes = momentOf(_settings.answerTakes);
  if (!isDown && !isFull) {
    ++load.answered[second];
    return {200, takes};
  }
  if (_settings.failure == Failure::Silent) return {0, limit};
  return {static_cast<std::uint16_t>(_settings.failure == Failure::Status ? 503 : 0), takes};
}

}  // namespace orbiq::bench
