#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <utility>

#include "orbiq/services/platform/threads/Mutex.h"
#include "tools/collector/Behaviour.h"
#include "tools/collector/Changes.h"

namespace orbiq::collector {

/// Holds the behaviour in force, and with it the requests that it delays or stalls. Thread-safe.
class Gate {
 public:
  /// Announces a new behaviour, and each change of the number held, to `changes`.
  Gate(Behaviour behaviour, Changes& changes)
      : _changes(changes), _behaviour(std::move(behaviour)) {}

  Behaviour behaviour() const;
  /// Applies changes and releases what they no longer stall. Throws as `changed` does, and then
  /// nothing has changed.
  Behaviour change(const nlohmann::json& changes);
  /// Lets every held request go unanswered, now and from now on.
  void close();

  struct Passage {
    /// False if the request must go unanswered: the gate was closed, or its client has gone.
    bool isAnswered = false;
    /// The behaviour to answer it with, or a healthy one. Delay and stall are those that held it.
    Behaviour behaviour;
  };
  /// Waits as long as the behaviour holds a request of this kind, and now and then asks after its
  /// client.
  Passage pass(Kind kind, const std::function<bool()>& clientHasGone);
  /// How many requests wait in `pass`.
  int held() const;

 private:
  void addHeld(int number) ORBIQ_REQUIRES(_condition);

  Changes& _changes;
  mutable Condition _condition;
  Behaviour _behaviour ORBIQ_GUARDED_BY(_condition);
  bool _closed ORBIQ_GUARDED_BY(_condition) = false;
  int _held ORBIQ_GUARDED_BY(_condition) = 0;
};

}  // namespace orbiq::collector
