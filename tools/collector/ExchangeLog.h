#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "orbiq/services/platform/Mutex.h"
#include "tools/collector/Behaviour.h"

namespace orbiq::collector {

struct Exchange {
  std::chrono::system_clock::time_point time;
  Kind kind = Kind::Auth;
  /// As it stood on the request line.
  std::string serial;
  /// 0 if the connection ended without an answer.
  int status = 0;
  std::string userAgent;
};

/// What the collector saw: one line of text per exchange, the newest exchanges, and counts. A hit
/// counts as such when it was answered with 200, every other one as lost. Bounded in memory and
/// thread-safe.
class ExchangeLog {
 public:
  static constexpr std::size_t kNewest = 10'000;
  /// Serials that are counted by name; those that come later are counted together.
  static constexpr std::size_t kSerials = 10'000;

  explicit ExchangeLog(std::ostream& lines) : _lines(lines) {}

  void add(Exchange exchange);
  void reset();
  nlohmann::json toJson() const;

 private:
  using Counts = std::map<std::string, std::uint64_t>;
  static void count(Counts& counts, const std::string& serial);

  std::ostream& _lines;
  mutable Mutex _mutex;
  std::deque<Exchange> _newest ORBIQ_GUARDED_BY(_mutex);
  std::uint64_t _total ORBIQ_GUARDED_BY(_mutex) = 0;
  Counts _authorizations ORBIQ_GUARDED_BY(_mutex);
  Counts _hits ORBIQ_GUARDED_BY(_mutex);
  Counts _hitsLost ORBIQ_GUARDED_BY(_mutex);
};

}  // namespace orbiq::collector
