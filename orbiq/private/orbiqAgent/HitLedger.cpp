#include "orbiq/private/orbiqAgent/HitLedger.h"

#include <algorithm>
#include <numeric>

namespace orbiq {

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

void HitLedger::countFate(HitFate fate, std::uint64_t hits) {
  const Lock lock(_lock);
  countOf(fate) += hits;
}

void HitLedger::attemptEnds(HitFate fate, std::uint64_t hits, const String& failure,
                            const Date& now) {
  const Lock lock(_lock);
  countOf(fate) += hits;
  if (fate == HitFate::Sent) _lastSuccess = now;
  if (!failure.isNull()) _lastFailure = failure;
}

void HitLedger::noteFailure(const String& text) {
  const Lock lock(_lock);
  _lastFailure = text;
}

void HitLedger::additionBegins(bool isCounted) {
  const Lock lock(_lock);
  if (isCounted) ++_accepted;
  ++_additionsWaiting;
  noteWaiting();
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
  result.pending = _accepted - std::accumulate(_fates.begin(), _fates.end(), std::uint64_t{0});
  result.lastSuccess = _lastSuccess;
  result.lastFailure = _lastFailure;
  result.additionsWaitingHighWater = _additionsWaitingHighWater;
  return result;
}

}  // namespace orbiq
