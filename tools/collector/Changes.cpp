#include "tools/collector/Changes.h"

namespace orbiq::collector {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kFarewell{1000};

}  // namespace

void Changes::announce() {
  const Lock lock(_condition);
  ++_announced;
  _condition.broadcast();
}

std::uint64_t Changes::wait(std::uint64_t seen, std::chrono::milliseconds duration) const {
  const Lock lock(_condition);
  const auto end = SteadyClock::now() + duration;
  while (!_closed && _announced == seen && SteadyClock::now() < end) {
    _condition.waitFor(end - SteadyClock::now());
  }
  return _announced;
}

bool Changes::ended(std::chrono::milliseconds duration) const {
  const Lock lock(_condition);
  const auto end = SteadyClock::now() + duration;
  while (!_closed && SteadyClock::now() < end) _condition.waitFor(end - SteadyClock::now());
  return _closed;
}

bool Changes::enter() {
  const Lock lock(_condition);
  if (_closed || _streams == kStreams) return false;
  ++_streams;
  return true;
}

void Changes::leave() {
  const Lock lock(_condition);
  --_streams;
  _condition.broadcast();
}

void Changes::close() {
  const Lock lock(_condition);
  _closed = true;
  _condition.broadcast();
  const auto end = SteadyClock::now() + kFarewell;
  while (_streams > 0 && SteadyClock::now() < end) _condition.waitFor(end - SteadyClock::now());
}

}  // namespace orbiq::collector
