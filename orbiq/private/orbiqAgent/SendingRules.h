#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "orbiq/private/orbiqRequest/RequestEnumerations.h"
#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// What can become of a hit.
enum class HitFate : std::size_t {
  Sent,
  Refused,
  AnsweredWithAnotherStatus,
  GivenUp,
  PushedOut,
  DiscardedAtStart,
  DiscardedAtNetworkReturn,
};

}  // namespace orbiq

/// What the agent decides by, without its queue and its locks. Whoever has a model of the agent
/// decides by the same.
namespace orbiq::SendingRules {

/// Of a hit's whole exchange, redirects included.
inline constexpr std::chrono::milliseconds kHitTimeout{10'000};

/// Of more requests the oldest is dropped.
inline constexpr std::size_t kMostRequests = 500;

/// Whether a head that failed then, or never, may be tried now.
bool isDue(const std::optional<Date>& lastFail, const Date& now);

/// False for a request that was created on a later day; true for one without a creation date. The
/// moments are the device's, the offset is the authorization server's clock minus the device's.
bool isValid(const std::optional<Date>& creationDate, const Date& now, double offset);

/// Whether such a request is dropped at the start and when the network comes back.
constexpr bool isDroppedLate(RequestType type) { return type == RequestTypeAudience; }

/// Whether the request takes the cached authorization, which is fetched if there is none, or goes
/// with its own.
constexpr bool takesCachedAuthorization(RequestType type, bool hasItsOwn) {
  return type == RequestTypeAudience || !hasItsOwn;
}

/// What becomes of a hit that was answered with this status; without an answer it stays.
std::optional<HitFate> fateAfter(std::optional<int> status);

}  // namespace orbiq::SendingRules
