#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "bench/fleet/Client.h"
#include "orbiq/private/orbiqAgent/HitLedger.h"

namespace orbiq::bench {

/// What both servers do.
class Servers {
 public:
  struct Answer {
    /// 0 for none.
    std::uint16_t status;
    /// How long the client waits for it, or until it gives up.
    Moment takes;
  };
  virtual ~Servers() = default;
  /// Usable if the status is 200. (Really it is the body that counts, and not the status.)
  virtual Answer authorize(Moment now, Random& random) = 0;
  virtual Answer takeHit(Moment now, Random& random) = 0;
};

/// What became of the hits of all clients, each counted once, over all their restarts.
struct Accounts {
  std::uint64_t accepted = 0;
  std::array<std::uint64_t, 7> fates{};
  /// Their additions waited for an exchange when the process ended.
  std::uint64_t lostAtEnd = 0;

  std::uint64_t of(HitFate fate) const { return fates[static_cast<std::size_t>(fate)]; }
  std::uint64_t settled() const;
};

/// The agent of one tagger without threads and files: what it does at each event. What it decides,
/// it decides by `SendingRules`.
///
/// Simplifications: all additions that wait get in when an exchange ends (in the agent, one before
/// each send); the access is full; an exchange does not notice that the network goes.
class AgentModel {
 public:
  explicit AgentModel(Servers& servers) : _servers(servers) {}

  /// Only a streaming request may renew the session.
  void add(Client& client, Kind kind, bool renewsSession, Moment now);
  void enterForeground(Client& client, Moment now);
  static void loseNetwork(Client& client) { client.isOffline = true; }
  void regainNetwork(Client& client, Moment now);
  /// The process ends, whatever it is doing, and the next one begins.
  void restart(Client& client, Moment now);
  /// To be called at `exchangeEnd`.
  void endExchange(Client& client);

  /// Whether it sends no audience hit until it restarts, whatever the servers do: it has the
  /// fallback, or a streaming request with a fallback of its own stands at the head.
  bool isSilenced(const Client& client) const;

  const Accounts& accounts() const { return _accounts; }

 private:
  void work(Client& client, Moment now);
  bool attempt(Client& client, Moment now);
  bool send(Client& client, Moment now);
  void keepHead(Client& client, Moment now);
  void append(Client& client, Request& request);
  void absorb(Client& client);
  void absorb(Client& client, std::uint16_t additions);
  void removeHead(Client& client, std::optional<HitFate> fate);
  void discardAudience(Client& client, HitFate fate);
  void link(Client& client, const Request& request);
  void drop(std::uint32_t place, std::optional<HitFate> fate);

  Servers& _servers;
  RequestPool _requests;
  Accounts _accounts;
};

}  // namespace orbiq::bench
