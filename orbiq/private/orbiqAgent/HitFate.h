#pragma once

#include <cstddef>

namespace orbiq {

/// What can become of a hit.
enum class HitFate : std::size_t {
  Sent,
  Refused,
  AnsweredWithAnotherStatus,
  GivenUp,
  PushedOut,
  DiscardedAtStart,
  DiscardedAtNetworkReturn,
};

}  // namespace orbiq
