#pragma once

#include <cstdint>
#include <vector>

#include "bench/fleet/AgentModel.h"
#include "bench/fleet/Client.h"
#include "bench/fleet/Scenario.h"

namespace orbiq::bench {

/// So many clients, and one clock for all of them, which goes from second to second: the calendar
/// has for each second the clients for which something happens in it. The same seed gives the same
/// run.
class Fleet {
 public:
  Fleet(std::uint32_t clients, const Behaviour& behaviour, const Scenario& scenario,
        Servers& servers, std::uint32_t seconds, std::uint64_t seed);

  void run();

  const Accounts& accounts() const { return _agent.accounts(); }
  /// Hits that wait, counted in the queues.
  std::uint64_t pending() const;
  /// Clients that the fallback keeps from sending.
  std::uint64_t silenced() const;

 private:
  void begin(Client& client);
  void simulate(Client& client, Moment end);
  void hit(Client& client, Moment now);
  void changeNetwork(Client& client, Moment now);
  void restart(Client& client, Moment now);
  void enter(const Client& client);
  static Moment after(Client& client, Moment now, double mean);
  Moment nextRestart(Client& client, Moment now);
  Moment ownRestartInWave(const Client& client) const;
  std::uint32_t numberOf(const Client& client) const {
    return static_cast<std::uint32_t>(&client - _clients.data());
  }

  const Behaviour _behaviour;
  const Scenario& _scenario;
  const std::uint32_t _seconds;
  const std::uint64_t _seed;
  AgentModel _agent;
  std::vector<Client> _clients;
  /// The clients of each second, each client once in all.
  std::vector<std::vector<std::uint32_t>> _calendar;
};

}  // namespace orbiq::bench
