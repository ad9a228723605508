#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/collector/Changes.h"
#include "tools/collector/ExchangeLog.h"
#include "tools/collector/Gate.h"

namespace orbiq::collector {

/// What one open page is told, as server-sent events: `state` (behaviour, held requests) and, with
/// a position as their identifiers, `snapshot` (begin anew) or `exchanges` (what comes after). It
/// keeps no queue: a reader that is slow is told less often, and one that has fallen behind what
/// the log still has begins anew.
class EventStream {
 public:
  /// `lastEventId` is the position that the page has reached already, or empty.
  EventStream(const ExchangeLog& log, const Gate& gate, const Changes& changes,
              std::string lastEventId);

  /// Waits a moment for something to tell. The text to send, empty if there is none yet; nothing
  /// at all when the stream is to end.
  std::optional<std::string> next();

 private:
  const ExchangeLog& _log;
  const Gate& _gate;
  const Changes& _changes;
  std::string _position;
  std::string _state;
  std::uint64_t _seen = 0;
  /// The log has more than was told so far.
  bool _isBehind = false;
  std::chrono::steady_clock::time_point _told;
};

}  // namespace orbiq::collector
