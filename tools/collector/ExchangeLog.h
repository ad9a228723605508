#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "orbiq/services/platform/threads/Mutex.h"
#include "tools/collector/Behaviour.h"
#include "tools/collector/Changes.h"
#include "tools/collector/Record.h"

namespace orbiq::collector {

struct Exchange {
  /// From 1 on since the last reset; the log sets it.
  std::uint64_t number = 0;
  std::chrono::system_clock::time_point time;
  Kind kind = Kind::Auth;
  /// As it stood on the request line; a long one is cut, as is the User-Agent.
  std::string serial;
  /// 0 if the connection ended without an answer.
  int status = 0;
  std::string userAgent;
  /// From the arrival of the request to its answer.
  std::chrono::microseconds took{0};
  /// Request line and headers, and what was answered, as texts for people; long ones are cut.
  std::string request;
  std::string answer;
  /// As the function `applied` gives it.
  nlohmann::json applied = nlohmann::json::object();
};

/// What the collector saw: one line of text per exchange, the newest exchanges, and counts by
/// outcome. Bounded in memory and thread-safe.
class ExchangeLog {
 public:
  static constexpr std::size_t kNewest = 10'000;
  /// Serials that are counted by name; those that come later are counted together.
  static constexpr std::size_t kSerials = 10'000;
  /// What one piece of news holds at most.
  static constexpr std::size_t kNews = 1'000;
  static constexpr std::size_t kOutcomes = 4;

  /// By outcome.
  using Totals = std::array<std::uint64_t, kOutcomes>;
  /// What comes after a position, or, if that is not known or too far back, all there is anew.
  struct News {
    bool anew = false;
    /// There is more after the position that these end at.
    bool isMore = false;
    std::string position;
    Totals totals{};
    std::vector<Exchange> exchanges;
  };

  /// Announces each exchange and each reset to `changes`. Each exchange is also added to `record`.
  ExchangeLog(std::ostream& lines, Changes& changes, Record* record = nullptr);

  void add(Exchange exchange);
  void reset();
  nlohmann::json toJson() const;
  /// The counts alone, by outcome and serial.
  nlohmann::json countsJson() const;
  /// Positions are those of earlier news. They do not outlive a reset, nor this log.
  News since(const std::string& position) const;

 private:
  using Counts = std::map<std::string, std::uint64_t>;
  static void count(Counts& counts, const std::string& serial);
  nlohmann::json counts() const ORBIQ_REQUIRES(_mutex);
  /// The number of exchanges at a position of this log since its last reset; none for any other.
  std::optional<std::uint64_t> totalAt(const std::string& position) const ORBIQ_REQUIRES(_mutex);
  std::string positionPrefix() const ORBIQ_REQUIRES(_mutex);

  std::ostream& _lines;
  Changes& _changes;
  Record* const _record;
  /// Tells this log's positions from those of an earlier process.
  const std::uint64_t _born;
  mutable Mutex _mutex;
  std::deque<Exchange> _newest ORBIQ_GUARDED_BY(_mutex);
  std::uint64_t _total ORBIQ_GUARDED_BY(_mutex) = 0;
  std::uint64_t _resets ORBIQ_GUARDED_BY(_mutex) = 0;
  Totals _totals ORBIQ_GUARDED_BY(_mutex){};
  std::array<Counts, kOutcomes> _counts ORBIQ_GUARDED_BY(_mutex);
};

nlohmann::json toJson(const ExchangeLog::News& news);

}  // namespace orbiq::collector
