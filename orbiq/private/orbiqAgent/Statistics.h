#pragma once

#include <cstdint>
#include <optional>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/time/Date.h"

namespace orbiq {

/// What became of every hit since the process began. `accepted` is the sum of the eight counts that
/// follow it; clear-cache markers and stop copies are not counted.
struct Statistics {
  /// `sendHit` calls, requests added to the queue and requests loaded from the file.
  std::uint64_t accepted = 0;
  /// Answered with status 200.
  std::uint64_t sent = 0;
  /// Refused by their access, at `sendHit` or before the send.
  std::uint64_t refused = 0;
  /// Answered, but with a status other than 200; never tried again.
  std::uint64_t answeredWithAnotherStatus = 0;
  /// Invalid, without a URL, or lost for want of memory.
  std::uint64_t givenUp = 0;
  /// The oldest of a full queue, or of more than 10,000 that wait to enter it.
  std::uint64_t pushedOut = 0;
  /// Audience requests of an earlier process.
  std::uint64_t discardedAtStart = 0;
  /// Audience requests that waited when the network came back.
  std::uint64_t discardedAtNetworkReturn = 0;
  /// Not settled yet.
  std::uint64_t pending = 0;

  /// When a request was last answered with status 200.
  std::optional<Date> lastSuccess;
  /// Why the last request that failed or was refused did, or why all wait; null before the first.
  String lastFailure;
  /// The most additions that ever waited at once for a send to end.
  std::uint64_t additionsWaitingHighWater = 0;

  /// All of it as one JSON object whose names are the members'; "lastSuccessMilliseconds" counts
  /// from 1970 (UTC), and what there is not is null.
  ORBIQ_EXPORT String json() const;
};

}  // namespace orbiq
