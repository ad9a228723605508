#include "orbiq/private/orbiqAgent/HitLedger.h"

#include <algorithm>
#include <iterator>

#include "orbiq/services/platform/host/Platform.h"

namespace orbiq {
namespace {

using SteadyClock = std::chrono::steady_clock;

// Far below what the clock can count to.
constexpr std::chrono::hours kLongestWait{24 * 365};

// By fate.
constexpr std::uint64_t Statistics::* kCounts[] = {&Statistics::sent,
                                                   &Statistics::refused,
                                                   &Statistics::answeredWithAnotherStatus,
                                                   &Statistics::givenUp,
                                                   &Statistics::pushedOut,
                                                   &Statistics::discardedAtStart,
                                                   &Statistics::discardedAtNetworkReturn};
static_assert(std::size(kCounts) ==
              static_cast<std::size_t>(HitFate::DiscardedAtNetworkReturn) + 1);

}  // namespace

void HitLedger::countLoaded(std::uint64_t hits, std::uint64_t discarded) {
  const Lock lock(_lock);
  _statistics.accepted += hits;
  _statistics.discardedAtStart += discarded;
  _statistics.pending += hits - discarded;
}

void HitLedger::countHit(HitFate fate, const String& failure) {
  const Lock lock(_lock);
  ++_statistics.accepted;
  ++countOf(fate);
  if (!failure.isNull()) _statistics.lastFailure = failure;
}

void HitLedger::countFate(HitFate fate, Number hit, const String& failure) {
  if (hit == kNoHit) return;
  const Date now = Platform::now();
  const Lock lock(_lock);
  ++countOf(fate);
  --_statistics.pending;
  if (fate == HitFate::Sent) _statistics.lastSuccess = now;
  if (!failure.isNull()) _statistics.lastFailure = failure;
  for (Waiter* waiter = _waiters; waiter != nullptr; waiter = waiter->next) {
    if (hit <= waiter->last && --waiter->pending == 0) _lock.broadcast();
  }
}

void HitLedger::noteFailure(const String& text) {
  const Lock lock(_lock);
  _statistics.lastFailure = text;
}

HitLedger::Number HitLedger::additionBegins(bool isHit) {
  const Lock lock(_lock);
  ++_additionsWaiting;
  noteWaiting();
  if (!isHit) return kNoHit;
  ++_statistics.pending;
  return ++_statistics.accepted;
}

void HitLedger::setSending(bool isSending) {
  const Lock lock(_lock);
  _isSending = isSending;
  noteWaiting();
}

void HitLedger::noteWaiting() {
  if (!_isSending) return;
  auto& highWater = _statistics.additionsWaitingHighWater;
  highWater = std::max(highWater, _additionsWaiting);
}

void HitLedger::additionEnds() {
  const Lock lock(_lock);
  --_additionsWaiting;
}

Statistics HitLedger::statistics() {
  const Lock lock(_lock);
  return _statistics;
}

std::uint64_t& HitLedger::countOf(HitFate fate) {
  return _statistics.*kCounts[static_cast<std::size_t>(fate)];
}

bool HitLedger::waitUntilSettled(std::chrono::milliseconds timeout) {
  const auto end =
      SteadyClock::now() + std::clamp<std::chrono::milliseconds>(timeout, {}, kLongestWait);
  const Lock lock(_lock);
  Waiter waiter{_statistics.accepted, _statistics.pending, _waiters};
  _waiters = &waiter;
  try {
    while (waiter.pending != 0 && !_isOver && SteadyClock::now() < end) {
      _lock.waitFor(end - SteadyClock::now());
    }
  } catch (...) {  // the thread is cancelled
    leave(waiter);
    throw;
  }
  leave(waiter);
  return waiter.pending == 0;
}

void HitLedger::endWaits() {
  const Lock lock(_lock);
  _isOver = true;
  _lock.broadcast();
}

void HitLedger::leave(const Waiter& waiter) {
  Waiter** place = &_waiters;
  while (*place != &waiter) place = &(*place)->next;
  *place = waiter.next;
}

}  // namespace orbiq
