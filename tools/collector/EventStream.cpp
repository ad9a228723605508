#include "tools/collector/EventStream.h"

#include <utility>

namespace orbiq::collector {
namespace {

using nlohmann::json;
using SteadyClock = std::chrono::steady_clock;

/// Between two events at least, so that a crowd of hits comes in a few large ones.
constexpr std::chrono::milliseconds kApart{50};
/// How soon a page that has gone is noticed.
constexpr std::chrono::milliseconds kLook{1000};
/// A stream that is silent for longer says that it is still there.
constexpr std::chrono::seconds kQuiet{15};

std::string textOf(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

EventStream::EventStream(const ExchangeLog& log, const Gate& gate, const Changes& changes,
                         std::string lastEventId)
    : _log(log), _gate(gate), _changes(changes), _position(std::move(lastEventId)) {}

std::optional<std::string> EventStream::next() {
  const bool first = _seen == 0;
  if (!first && _changes.ended(kApart)) return std::nullopt;
  if (!_isBehind) _seen = _changes.wait(_seen, kLook);
  if (_changes.ended({})) return std::nullopt;

  std::string text;
  if (first) text = "retry: 1000\n\n";
  std::string state = textOf({{"behaviour", toJson(_gate.behaviour())},
                              {"healthy", toJson(Behaviour())},
                              {"held", _gate.held()}});
  if (state != _state) {
    text += "event: state\ndata: " + state + "\n\n";
    _state = std::move(state);
  }
  ExchangeLog::News news = _log.since(_position);
  if (news.anew || !news.exchanges.empty()) {
    text += std::string("event: ") + (news.anew ? "snapshot" : "exchanges") +
            "\nid: " + news.position + "\ndata: " + textOf(toJson(news)) + "\n\n";
    _position = std::move(news.position);
    _isBehind = news.isMore;
  }
  if (text.empty() && SteadyClock::now() - _told > kQuiet) text = ":\n\n";
  if (!text.empty()) _told = SteadyClock::now();
  return text;
}

}  // namespace orbiq::collector
