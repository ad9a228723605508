#include "orbiq/private/orbiqAgent/HitLedger.h"

#include <algorithm>
#include <numeric>

#include "orbiq/services/platform/host/Platform.h"

namespace orbiq {
namespace {

using SteadyClock = std::chrono::steady_clock;

// Far below what the clock can count to.
constexpr std::chrono::hours kLongestWait{24 * 365};

}  // namespace

void HitLedger::countLoaded(std::uint64_t hits, std::uint64_t discarded) {
  const Lock lock(_lock);
  _accepted += hits;
  countOf(HitFate::DiscardedAtStart) += discarded;
}

void HitLedger::countHit(HitFate fate) {
  const Lock lock(_lock);
  ++_accepted;
  ++countOf(fate);
}

void HitLedger::countFate(HitFate fate, Number hit, const String& failure) {
  if (hit == kNoHit) return;
  const Date now = Platform::now();
  const Lock lock(_lock);
  ++countOf(fate);
  if (fate == HitFate::Sent) _lastSuccess = now;
  if (!failure.isNull()) _lastFailure = failure;
  for (Waiter* waiter = _waiters; waiter != nullptr; waiter = waiter->next) {
    if (hit <= waiter->last && --waiter->pending == 0) _lock.broadcast();
  }
}

void HitLedger::noteFailure(const String& text) {
  const Lock lock(_lock);
  _lastFailure = text;
}

HitLedger::Number HitLedger::additionBegins(bool isHit) {
  const Lock lock(_lock);
  ++_additionsWaiting;
  noteWaiting();
  return isHit ? ++_accepted : kNoHit;
}

void HitLedger::setSending(bool isSending) {
  const Lock lock(_lock);
  _isSending = isSending;
  noteWaiting();
}

void HitLedger::noteWaiting() {
  if (!_isSending) return;
  _additionsWaitingHighWater = std::max(_additionsWaitingHighWater, _additionsWaiting);
}

void HitLedger::additionEnds() {
  const Lock lock(_lock);
  --_additionsWaiting;
}

Statistics HitLedger::statistics() const {
  const Lock lock(_lock);
  Statistics result;
  result.accepted = _accepted;
  result.sent = countOf(HitFate::Sent);
  result.refused = countOf(HitFate::Refused);
  result.answeredWithAnotherStatus = countOf(HitFate::AnsweredWithAnotherStatus);
  result.givenUp = countOf(HitFate::GivenUp);
  result.pushedOut = countOf(HitFate::PushedOut);
  result.discardedAtStart = countOf(HitFate::DiscardedAtStart);
  result.discardedAtNetworkReturn = countOf(HitFate::DiscardedAtNetworkReturn);
  result.pending = pending();
  result.lastSuccess = _lastSuccess;
  result.lastFailure = _lastFailure;
  result.additionsWaitingHighWater = _additionsWaitingHighWater;
  return result;
}

std::uint64_t HitLedger::pending() const {
  return _accepted - std::accumulate(_fates.begin(), _fates.end(), std::uint64_t{0});
}

bool HitLedger::waitUntilSettled(std::chrono::milliseconds timeout) {
  const auto end = SteadyClock::now() + std::clamp<std::chrono::milliseconds>(timeout, {}, kLongestWait);
  const Lock lock(_lock);
  Waiter waiter{_accepted, pending(), _waiters};
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
