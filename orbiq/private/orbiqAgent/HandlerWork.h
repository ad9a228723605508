#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <optional>

#include "orbiq/private/orbiqAgent/HitLedger.h"
#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq {

/// What wakes the sending loop from outside. The return of the network does what the foreground
/// does, and more.
enum class Trigger { None, Foreground, NetworkReturn };

/// What waits for "orbiqRequestHandler": additions and triggers, in order. While a send stalls, an
/// application may go on adding: of more additions than the bound the oldest gives way. Any thread.
class HandlerWork {
 public:
  static constexpr std::size_t kMostAdditions = 10'000;

  /// Either an addition or a trigger.
  struct Item {
    std::shared_ptr<orbiqRequest> added = {};
    HitLedger::Number number = 0;
    Trigger trigger = Trigger::None;
  };

  /// What came of giving an item.
  struct Given {
    /// Nobody takes items at the moment: somebody has to be sent for them.
    bool needsTaker = false;
    /// The addition that gave way; empty if none did.
    Item pushedOut = {};
  };
  /// Throws `std::bad_alloc`; then the addition was not given. A trigger is never lost: without
  /// memory for its place in the order it comes first.
  Given give(const Item& item);
  /// None if nothing is left: then the taker goes, and the next item needs another.
  std::optional<Item> take();
  /// The taker that was to be sent cannot be.
  void takerFailed();

 private:
  Mutex _lock;
  std::list<Item> _items ORBIQ_GUARDED_BY(_lock);
  std::size_t _additions ORBIQ_GUARDED_BY(_lock) = 0;
  Trigger _owed ORBIQ_GUARDED_BY(_lock) = Trigger::None;
  bool _hasTaker ORBIQ_GUARDED_BY(_lock) = false;
};

}  // namespace orbiq
