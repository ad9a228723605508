#include "tools/collector/ExchangeLog.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <utility>

namespace orbiq::collector {
namespace {

using nlohmann::json;

constexpr std::array<const char*, ExchangeLog::kOutcomes> kOutcomeNames{
    "authorizations", "hits", "hitsAnsweredOtherwise", "hitsUnanswered"};

/// A hit that is answered has left the library, whatever the status; one that goes unanswered is
/// still there and is tried again. The place in `kOutcomeNames`.
std::size_t outcomeOf(const Exchange& exchange) {
  if (exchange.kind == Kind::Auth) return 0;
  if (exchange.status == 200) return 1;
  return exchange.status == 0 ? 3 : 2;
}

std::string timeText(std::chrono::system_clock::time_point time) {
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 32> date{};
  const std::size_t length = std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::array<char, 8> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(milliseconds % 1000));
  return std::string(date.data(), length) + fraction.data();
}

/// What a client sent must not steer the terminal.
std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c >= 0x7f; }, '?');
  return text;
}

std::string lineFor(const Exchange& exchange) {
  return timeText(exchange.time) + " " + nameOf(exchange.kind) + " " + printable(exchange.serial) +
         " " + (exchange.status == 0 ? "unanswered" : std::to_string(exchange.status)) + " \"" +
         printable(exchange.userAgent) + "\"";
}

json jsonOf(const Exchange& exchange) {
  return {
      {"number", exchange.number},
      {"time", timeText(exchange.time)},
      {"kind", nameOf(exchange.kind)},
      {"serial", exchange.serial},
      {"status", exchange.status == 0 ? json(nullptr) : json(exchange.status)},
      {"userAgent", exchange.userAgent},
      {"tookMs", static_cast<double>(exchange.took.count()) / 1000},
      {"request", exchange.request},
      {"answer", exchange.answer},
      {"applied", exchange.applied},
  };
}

template <class Exchanges>
json listOf(const Exchanges& exchanges) {
  json list = json::array();
  for (const Exchange& exchange : exchanges) list.push_back(jsonOf(exchange));
  return list;
}

std::uint64_t now() {
  return static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
}

}  // namespace

ExchangeLog::ExchangeLog(std::ostream& lines, Changes& changes, Record* record)
    : _lines(lines), _changes(changes), _record(record), _born(now()) {}

void ExchangeLog::add(Exchange exchange) {
  const std::string line = lineFor(exchange);
  {
    const Lock lock(_mutex);
    // Under the lock, so that the lines stand in the order of the counts and none cuts another.
    _lines << line << std::endl;
    exchange.number = ++_total;
    if (_record != nullptr) _record->add(jsonOf(exchange));
    const std::size_t outcome = outcomeOf(exchange);
    ++_totals[outcome];
    count(_counts[outcome], exchange.serial);
    _newest.push_back(std::move(exchange));
    if (_newest.size() > kNewest) _newest.pop_front();
  }
  _changes.announce();
}

void ExchangeLog::count(Counts& counts, const std::string& serial) {
  const bool known = counts.size() < kSerials || counts.contains(serial);
  ++counts[known ? serial : "(others)"];
}

void ExchangeLog::reset() {
  {
    const Lock lock(_mutex);
    _newest.clear();
    _total = 0;
    ++_resets;
    _totals = {};
    _counts = {};
  }
  _changes.announce();
}

json ExchangeLog::counts() const {
  json counts{{"total", _total}};
  for (std::size_t outcome = 0; outcome < kOutcomes; ++outcome) {
    counts[kOutcomeNames[outcome]] = _counts[outcome];
  }
  return counts;
}

json ExchangeLog::countsJson() const {
  const Lock lock(_mutex);
  return counts();
}

json ExchangeLog::toJson() const {
  const Lock lock(_mutex);
  return {{"counts", counts()}, {"exchanges", listOf(_newest)}};
}

std::string ExchangeLog::positionPrefix() const {
  return std::to_string(_born) + "." + std::to_string(_resets) + ".";
}

std::optional<std::uint64_t> ExchangeLog::totalAt(const std::string& position) const {
  const std::string prefix = positionPrefix();
  if (!position.starts_with(prefix)) return std::nullopt;
  std::uint64_t total = 0;
  const char* const end = position.data() + position.size();
  const auto read = std::from_chars(position.data() + prefix.size(), end, total);
  if (read.ec != std::errc() || read.ptr != end || total > _total) return std::nullopt;
  return total;
}

ExchangeLog::News ExchangeLog::since(const std::string& position) const {
  const Lock lock(_mutex);
  const std::optional<std::uint64_t> known = totalAt(position);
  const std::uint64_t forgotten = _total - _newest.size();
  News news;
  news.anew = !known || *known < forgotten;
  const std::uint64_t from = news.anew ? forgotten : *known;
  const std::uint64_t to = std::min<std::uint64_t>(from + kNews, _total);
  news.isMore = to < _total;
  news.position = positionPrefix() + std::to_string(to);
  news.totals = _totals;
  const auto at = [forgotten, oldest = _newest.begin()](std::uint64_t total) {
    return oldest + static_cast<std::ptrdiff_t>(total - forgotten);
  };
  news.exchanges.assign(at(from), at(to));
  return news;
}

json toJson(const ExchangeLog::News& news) {
  json totals = json::object();
  for (std::size_t outcome = 0; outcome < kOutcomeNames.size(); ++outcome) {
    totals[kOutcomeNames[outcome]] = news.totals[outcome];
  }
  return {{"totals", std::move(totals)}, {"exchanges", listOf(news.exchanges)}};
}

}  // namespace orbiq::collector
