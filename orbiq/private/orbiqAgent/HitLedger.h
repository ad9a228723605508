#pragma once

#include <chrono>
#include <cstdint>

#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/private/orbiqAgent/Statistics.h"
#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq {

/// The accounts of the hits, under a lock of its own that is held for a few instructions. Any
/// thread.
class HitLedger {
 public:
  /// Which of the accepted hits one is, from 1 on. 0 stands for one of the file's.
  using Number = std::uint64_t;
  /// A marker's: it is not counted.
  static constexpr Number kNoHit = UINT64_MAX;

  /// Hits that the file held, some of which are discarded.
  void countLoaded(std::uint64_t hits, std::uint64_t discarded);
  /// A hit that never comes to the queue.
  void countHit(HitFate fate, const String& failure = {});
  /// A request is on its way to the queue.
  Number additionBegins(bool isHit);
  void additionEnds();
  /// A null failure leaves the last one known.
  void countFate(HitFate fate, Number hit, const String& failure = {});
  void noteFailure(const String& text);
  /// A send is under way as long as it lives.
  class Sending {
   public:
    explicit Sending(HitLedger& ledger) : _ledger(ledger) { _ledger.setSending(true); }
    ~Sending() { _ledger.setSending(false); }
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

   private:
    HitLedger& _ledger;
  };
  Statistics statistics();
  /// Waits until no hit accepted before the call is pending; false if the time is over first.
  bool waitUntilSettled(std::chrono::milliseconds timeout);
  /// Nothing is settled any more: ends the waits, those to come too.
  void endWaits();

 private:
  /// A call of `waitUntilSettled`; lies on its caller's stack.
  struct Waiter {
    Number last;
    /// Hits that it waits for.
    std::uint64_t pending;
    Waiter* next;
  };

  std::uint64_t& countOf(HitFate fate) ORBIQ_REQUIRES(_lock);
  void leave(const Waiter& waiter) ORBIQ_REQUIRES(_lock);
  void setSending(bool isSending);
  void noteWaiting() ORBIQ_REQUIRES(_lock);

  Condition _lock;
  Statistics _statistics ORBIQ_GUARDED_BY(_lock);
  bool _isSending ORBIQ_GUARDED_BY(_lock) = false;
  std::uint64_t _additionsWaiting ORBIQ_GUARDED_BY(_lock) = 0;
  Waiter* _waiters ORBIQ_GUARDED_BY(_lock) = nullptr;
  bool _isOver ORBIQ_GUARDED_BY(_lock) = false;
};

}  // namespace orbiq
