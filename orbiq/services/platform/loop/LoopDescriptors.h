#pragma once

#include <chrono>
#include <cstdint>

#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq {

/// What a loop waits with: one pollable set of an event, an alarm and the descriptors that are
/// watched. Never closed again. It has no lock: the caller guards it.
class LoopDescriptors {
 public:
  /// Makes them, unless they are there. False if not all can be had; then there is none.
  bool open();
  bool areOpen() const { return _set.isOpen(); }
  /// What can be polled; -1 if they are not open.
  int set() const { return _set.number(); }

  // Only while they are open.

  /// Makes the set readable until it is taken back.
  void raise(bool wanted);
  /// When the set becomes readable, by CLOCK_MONOTONIC; the maximum for never. Another time than
  /// before clears an alarm that has gone off.
  void setAlarm(std::chrono::nanoseconds time);
  /// Watches a descriptor, or gives it another key. False if the system lacks what that takes at
  /// the moment; what can never be watched is passed over.
  bool add(int descriptor, std::uint64_t key);
  void remove(int descriptor);

 private:
  Descriptor _set;
  Descriptor _event;
  Descriptor _alarm;
  /// What the kernel was last told.
  bool _isRaised = false;
  std::chrono::nanoseconds _alarmTime = std::chrono::nanoseconds::max();
};

}  // namespace orbiq
