#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench/fleet/Random.h"

namespace orbiq::bench {

/// Milliseconds since the simulation began.
using Moment = std::uint32_t;
inline constexpr Moment kNever = UINT32_MAX;
inline constexpr Moment kSecond = 1000;

/// What the authorization server named, or what stands in its place.
enum class Authorization : std::uint8_t { None, Granted, Fallback };
enum class Kind : std::uint8_t { Audience, Streaming, Marker };

/// One request in a client's queue.
struct Request {
  std::uint32_t next = 0;
  Moment created = 0;
  Kind kind = Kind::Audience;
  bool renewsSession = false;
  Authorization authorization = Authorization::None;
};

/// The requests of all clients, so that a queue costs what is in it.
class RequestPool {
 public:
  std::uint32_t take(const Request& request) {
    if (_free == kNone) {
      _requests.push_back(request);
      return static_cast<std::uint32_t>(_requests.size() - 1);
    }
    const std::uint32_t place = _free;
    _free = _requests[place].next;
    _requests[place] = request;
    return place;
  }
  void giveBack(std::uint32_t place) {
    _requests[place].next = _free;
    _free = place;
  }
  Request& at(std::uint32_t place) { return _requests[place]; }
  const Request& at(std::uint32_t place) const { return _requests[place]; }

 private:
  static constexpr std::uint32_t kNone = UINT32_MAX;
  std::vector<Request> _requests;
  std::uint32_t _free = kNone;
};

/// A process that uses the library, and when its next events come. In one line of a cache.
struct alignas(64) Client {
  enum class Phase : std::uint8_t { Idle, Authorizing, Sending };

  Random random;
  Moment nextHit = kNever;
  Moment nextForeground = kNever;
  Moment nextNetworkChange = kNever;
  Moment nextRestart = kNever;
  /// When the exchange that is under way ends.
  Moment exchangeEnd = kNever;
  /// When the request at the head failed.
  Moment lastFail = kNever;

  // The queue: `queued` requests from `head` on, and behind them those whose addition waits for
  // the end of the exchange, up to `tail`.
  std::uint32_t head = 0;
  std::uint32_t tail = 0;
  std::uint16_t queued = 0;
  std::uint16_t waiting = 0;
  /// How many of those that wait came before the network did.
  std::uint16_t waitingBeforeNetwork = 0;

  /// The status that ends the exchange; 0 for none.
  std::uint16_t status = 0;
  Authorization authorization = Authorization::None;
  Phase phase = Phase::Idle;
  bool isOffline = false;
  bool hasMarker = false;
  bool networkReturnWaits = false;
};
static_assert(sizeof(Client) == 64);

}  // namespace orbiq::bench
