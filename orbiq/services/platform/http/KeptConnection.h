#pragma once

#include <cstdint>

#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq {

/// The connection that the transfer library keeps between two requests, watched from beside it
/// through a descriptor of its own. One thread at a time.
class KeptConnection {
 public:
  /// From now on this is the connection; -1: none, as when no descriptor can be had. It ends by
  /// itself when the peer acknowledges nothing for five seconds.
  void watch(int socket);
  void forget() { _socket = Descriptor(); }

  /// True if nothing lies there that nobody asked for, neither bytes nor the peer's end. What comes
  /// afterwards has come "since". False without a connection.
  bool isQuiet();
  /// True if not one byte of an answer has come since, as far as the kernel can tell; the
  /// connection may have ended, and a TLS peer may have taken its leave.
  bool hasBroughtNothing(bool isTls) const;

 private:
  /// What the kernel has received. It counts the peer's end as one byte, but not as a segment.
  struct Received {
    std::uint64_t bytes = 0;
    std::uint32_t segments = 0;
  };
  /// False where the kernel does not tell.
  bool read(Received& received) const;

  Descriptor _socket;
  Received _before;
  bool _isKnown = false;
};

}  // namespace orbiq
