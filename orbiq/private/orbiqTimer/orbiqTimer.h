#pragma once

#include <functional>
#include <memory>
#include <type_traits>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/loop/MainLoop.h"

/// Calls an operation of a target on the main loop, once or at a fixed interval, without keeping
/// the target alive. It cannot be started again once it has ended; make a new one.
///
/// The main loop keeps a timer alive until it has ended, which is after `invalidate` or after the
/// single firing of one that does not repeat. Somebody who only wants it to fire need not keep it.
class ORBIQ_EXPORT orbiqTimer final : public std::enable_shared_from_this<orbiqTimer> {
  /// Only the factory can name it.
  struct Passkey {
    explicit Passkey() = default;
  };
  /// Calls the chosen operation on an object of the target's static class.
  using Selector = std::function<void(void* receiver, orbiqTimer& self)>;

 public:
  /// Makes a timer whose first firing comes one interval from now. Any thread.
  ///
  /// `interval` is in seconds. 0, negative ones and those below 0.1 ms are taken as 0.1 ms;
  /// infinity and NaN, like all beyond thirty years, as thirty years, so that a miscalculated
  /// interval makes a timer that rests rather than one that storms. Repeated firings come at
  /// multiples of the interval since the creation, so they do not drift; those that the loop
  /// missed, because it was busy, are skipped.
  ///
  /// `selector` is a member function that takes the timer: `&Player::tick`, with
  /// `void tick(orbiqTimer& timer)`. What it returns or throws is of no matter. If it belongs to
  /// another class than `target` is declared with, it is called only on targets that are of that
  /// class too. Where the target is null, destroyed or not of that class, or the selector is null,
  /// nothing is called and the timer goes on. During a call the target is kept alive. Null if there
  /// is no memory for a timer.
  template <class Target, class Class, class Operation>
  static std::shared_ptr<orbiqTimer> orbiqTimerWithInterval_withTarget_selector_repeating(
      double interval, const std::shared_ptr<Target>& target, Operation Class::* selector,
      bool repeating) {
    using Responder = std::conditional_t<std::is_const_v<Target>, const Class, Class>;
    static_assert(std::is_invocable_v<Operation Class::*, Responder&, orbiqTimer&>,
                  "the selector is a member function that takes an orbiqTimer&, and const for a "
                  "const target");
    return makeScheduled(
        interval, std::const_pointer_cast<std::remove_const_t<Target>>(target),
        [selector](void* receiver, orbiqTimer& self) {
          Responder* const responder = responderIn<Responder>(static_cast<Target*>(receiver));
          if (responder && selector) static_cast<void>((responder->*selector)(self));
        },
        repeating);
  }

  /// For the factory alone; does not schedule.
  orbiqTimer(Passkey passkey, std::weak_ptr<void> newTarget, Selector newSelector);
  orbiqTimer(const orbiqTimer&) = delete;
  orbiqTimer& operator=(const orbiqTimer&) = delete;

  /// Calls the target as a firing does, on the calling thread, which may be any. The argument, the
  /// main loop's own timer, is of no matter.
  void tick(orbiq::MainLoop::TimerId firing);
  /// Ends the timer by a step posted on the main loop, before which it may still fire. Any thread;
  /// returns at once; harmless if it has ended. Without memory for the step the timer ends at once.
  void invalidate();

 private:
  static std::shared_ptr<orbiqTimer> makeScheduled(double interval, std::weak_ptr<void> target,
                                                   Selector selector, bool repeating);

  /// The target as an object of the class that has the operation, or null.
  template <class Class, class Target>
  static Class* responderIn(Target* target) {
    if constexpr (std::is_convertible_v<Target*, Class*>) {
      return target;
    } else {
      static_assert(std::is_polymorphic_v<Target>,
                    "the target's class neither has the selector nor can be asked for it");
      return dynamic_cast<Class*>(target);
    }
  }

  /// Set before the first firing; 0 where nothing was scheduled.
  orbiq::MainLoop::TimerId timer = 0;
  const std::weak_ptr<void> target;
  const Selector selector;
};
