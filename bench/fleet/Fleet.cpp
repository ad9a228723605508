#include "bench/fleet/Fleet.h"

#include <algorithm>
#include <utility>

namespace orbiq::bench {
namespace {

constexpr std::size_t kAhead = 8;

Moment nextEvent(const Client& client) {
  return std::min({client.exchangeEnd, client.nextHit, client.nextForeground,
                   client.nextNetworkChange, client.nextRestart});
}

Moment later(Moment now, double seconds) {
  const double moment = now + seconds * kSecond;
  return moment < kNever ? static_cast<Moment>(moment) : kNever;
}

}  // namespace

Fleet::Fleet(std::uint32_t clients, const Behaviour& behaviour, const Scenario& scenario,
             Servers& servers, std::uint32_t seconds, std::uint64_t seed)
    : _behaviour(behaviour),
      _scenario(scenario),
      _seconds(seconds),
      _seed(seed),
      _agent(servers),
      _clients(clients),
      _calendar(seconds) {}

void Fleet::run() {
  for (Client& client : _clients) begin(client);
  for (std::uint32_t second = 0; second < _seconds; ++second) {
    // None comes in: an event of this second is simulated with those before it.
    const std::vector<std::uint32_t> due = std::exchange(_calendar[second], {});
    for (std::size_t i = 0; i < due.size(); ++i) {
      // They lie all over the memory.
      if (i + kAhead < due.size()) __builtin_prefetch(&_clients[due[i + kAhead]], 1);
      simulate(_clients[due[i]], (second + 1) * kSecond);
      enter(_clients[due[i]]);
    }
  }
}

/// In the middle of its life: authorized, with nothing to send.
void Fleet::begin(Client& client) {
  client.random = Random(Random(_seed ^ (std::uint64_t{numberOf(client)} << 20U)).next());
  client.authorization = Authorization::Granted;
  client.nextHit = after(client, 0, _behaviour.betweenHits);
  client.nextForeground = after(client, 0, _behaviour.betweenForegrounds);
  client.nextNetworkChange = after(client, 0, _behaviour.betweenNetworkBreaks);
  client.nextRestart = nextRestart(client, 0);
  enter(client);
}

void Fleet::simulate(Client& client, Moment end) {
  for (Moment now = nextEvent(client); now < end; now = nextEvent(client)) {
    if (now == client.exchangeEnd) {
      _agent.endExchange(client);
    } else if (now == client.nextRestart) {
      restart(client, now);
    } else if (now == client.nextNetworkChange) {
      changeNetwork(client, now);
    } else if (now == client.nextHit) {
      hit(client, now);
    } else {
      client.nextForeground = after(client, now, _behaviour.betweenForegrounds);
      _agent.enterForeground(client, now);
    }
  }
}

void Fleet::hit(Client& client, Moment now) {
  client.nextHit = after(client, now, _behaviour.betweenHits);
  const bool isStreaming = client.random.isWithin(_behaviour.streamingShare);
  const bool renews = isStreaming && client.random.isWithin(_behaviour.renewingShare);
  _agent.add(client, isStreaming ? Kind::Streaming : Kind::Audience, renews, now);
}

void Fleet::changeNetwork(Client& client, Moment now) {
  if (client.isOffline) {
    client.nextNetworkChange = after(client, now, _behaviour.betweenNetworkBreaks);
    _agent.regainNetwork(client, now);
  } else {
    client.nextNetworkChange = later(now, _behaviour.networkBreak);
    AgentModel::loseNetwork(client);
  }
}

void Fleet::restart(Client& client, Moment now) {
  client.nextRestart = nextRestart(client, now);
  client.nextHit = later(now, client.random.uniform() * _behaviour.firstHitWithin);
  client.nextForeground = after(client, now, _behaviour.betweenForegrounds);
  _agent.restart(client, now);
}

void Fleet::enter(const Client& client) {
  const std::uint32_t second = nextEvent(client) / kSecond;
  if (second >= _seconds) return;
  _calendar[second].push_back(numberOf(client));
}

Moment Fleet::after(Client& client, Moment now, double mean) {
  // Never in the same moment again.
  return mean > 0 ? std::max(later(now, client.random.exponential(mean)), now + 1) : kNever;
}

Moment Fleet::nextRestart(Client& client, Moment now) {
  const Moment ofItsOwn = after(client, now, _behaviour.betweenRestarts);
  const Moment inWave = ownRestartInWave(client);
  return inWave > now ? std::min(ofItsOwn, inWave) : ofItsOwn;
}

/// The same whenever it is asked for.
Moment Fleet::ownRestartInWave(const Client& client) const {
  const Window& wave = _scenario.restarts;
  if (wave.begin == wave.end) return kNever;
  const double part = Random(~_seed ^ (std::uint64_t{numberOf(client)} << 20U)).uniform();
  return later(wave.begin * kSecond, part * (wave.end - wave.begin));
}

std::uint64_t Fleet::pending() const {
  std::uint64_t hits = 0;
  for (const Client& client : _clients) {
    hits += client.queued + client.waiting - (client.hasMarker ? 1U : 0U);
  }
  return hits;
}

std::uint64_t Fleet::silenced() const {
  return static_cast<std::uint64_t>(
      std::count_if(_clients.begin(), _clients.end(),
                    [this](const Client& client) { return _agent.isSilenced(client); }));
}

}  // namespace orbiq::bench
