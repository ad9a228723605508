#include "tools/collector/ExchangeLog.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

namespace orbiq::collector {
namespace {

using nlohmann::json;

std::string timeText(std::chrono::system_clock::time_point time) {
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  const std::time_t seconds = milliseconds / 1000;
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
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return text;
}

std::string lineFor(const Exchange& exchange) {
  return timeText(exchange.time) + " " + nameOf(exchange.kind) + " " + printable(exchange.serial) +
         " " + (exchange.status == 0 ? "unanswered" : std::to_string(exchange.status)) + " \"" +
         printable(exchange.userAgent) + "\"";
}

}  // namespace

void ExchangeLog::add(Exchange exchange) {
  const std::string line = lineFor(exchange);
  const Lock lock(_mutex);
  // Under the lock, so that the lines stand in the order of the counts and none cuts another.
  _lines << line << std::endl;
  ++_total;
  if (exchange.kind == Kind::Auth) {
    count(_authorizations, exchange.serial);
  } else {
    count(exchange.status == 200 ? _hits : _hitsLost, exchange.serial);
  }
  _newest.push_back(std::move(exchange));
  if (_newest.size() > kNewest) _newest.pop_front();
}

void ExchangeLog::count(Counts& counts, const std::string& serial) {
  const bool known = counts.size() < kSerials || counts.contains(serial);
  ++counts[known ? serial : "(others)"];
}

void ExchangeLog::reset() {
  const Lock lock(_mutex);
  _newest.clear();
  _total = 0;
  _authorizations.clear();
  _hits.clear();
  _hitsLost.clear();
}

json ExchangeLog::toJson() const {
  const Lock lock(_mutex);
  json exchanges = json::array();
  for (const Exchange& exchange : _newest) {
    exchanges.push_back({
        {"time", timeText(exchange.time)},
        {"kind", nameOf(exchange.kind)},
        {"serial", exchange.serial},
        {"status", exchange.status == 0 ? json(nullptr) : json(exchange.status)},
        {"userAgent", exchange.userAgent},
    });
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

}  // namespace orbiq::collector
