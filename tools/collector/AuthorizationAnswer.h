#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/collector/Behaviour.h"

namespace orbiq::collector {

/// What goes over the wire as the answer to an authorization.
struct AuthorizationAnswer {
  std::string body;
  /// What the header Content-Length says.
  std::size_t declaredLength = 0;
  std::optional<std::string> date;
};

/// Writes the answer as the behaviour wants it. `ownHost` is the base URL of the collector's own
/// hit server.
AuthorizationAnswer authorizationAnswer(const Behaviour& behaviour, const std::string& ownHost,
                                        std::uint64_t session,
                                        std::chrono::system_clock::time_point now);

}  // namespace orbiq::collector
