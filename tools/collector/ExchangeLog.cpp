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

json jsonOf(const Exchange& exchange, std::uint64_t number) {
  return {
      {"number", number},
      {"time", timeText(exchange.time)},
      {"kind", nameOf(exchange.kind)},
      {"serial", exchange.serial},
      {"status", exchange.status == 0 ? json(nullptr) : json(exchange.status)},
      {"userAgent", exchange.userAgent},
      {"tookMs", static_cast<double>(exchange.took.count()) / 1000},
      {"request", exchange.request},
      {"answer", exchange.answer},
  };
}

std::uint64_t now() {
  return static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
}

}  // namespace

ExchangeLog::ExchangeLog(std::ostream& lines, Changes& changes)
    : _lines(lines), _changes(changes), _born(now()) {}

void ExchangeLog::add(Exchange exchange) {
  const std::string line = lineFor(exchange);
  {
    const Lock lock(_mutex);
    // Under the lock, so that the lines stand in the order of the counts and none cuts another.
    _lines << line << std::endl;
    ++_total;
    if (exchange.kind == Kind::Auth) {
      ++_totals.authorizations;
      count(_authorizations, exchange.serial);
    } else {
      ++(exchange.status == 200 ? _totals.hits : _totals.hitsLost);
      count(exchange.status == 200 ? _hits : _hitsLost, exchange.serial);
    }
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
    _authorizations.clear();
    _hits.clear();
    _hitsLost.clear();
  }
  _changes.announce();
}

json ExchangeLog::toJson() const {
  const Lock lock(_mutex);
  json exchanges = json::array();
  std::uint64_t number = _total - _newest.size();
  for (const Exchange& exchange : _newest) {
    exchanges.push_back(jsonOf(exchange, ++number));
  }
  return {
      {"counts",
       {
           {"total", _total},
           {"authorizations", json(_authorizations)},
           {"hits", json(_hits)},
           {"hitsLost", json(_hitsLost)},
       }},
      {"exchanges", std::move(exchanges)},
  };
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
  News news;
  news.anew = !known || _total - *known > kNews;
  const std::uint64_t wanted =
      news.anew ? std::min<std::uint64_t>(kNews, _newest.size()) : _total - *known;
  news.position = positionPrefix() + std::to_string(_total);
  news.totals = _totals;
  news.first = _total - wanted + 1;
  news.exchanges.assign(_newest.end() - static_cast<std::ptrdiff_t>(wanted), _newest.end());
  return news;
}

json toJson(const ExchangeLog::News& news) {
  json exchanges = json::array();
  std::uint64_t number = news.first;
  for (const Exchange& exchange : news.exchanges) exchanges.push_back(jsonOf(exchange, number++));
  return {
      {"totals",
       {{"authorizations", news.totals.authorizations},
        {"hits", news.totals.hits},
        {"hitsLost", news.totals.hitsLost}}},
      {"exchanges", std::move(exchanges)},
  };
}

}  // namespace orbiq::collector
