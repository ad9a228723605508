#include "orbiq/services/platform/http/KeptConnection.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>

namespace orbiq {
namespace {

/// The longest record that says no more than "close notify", with the peer's end behind it (TLS 1.2
/// with AES-GCM; TLS 1.3 takes less). A record of an answer is as short only if it ends before the
/// status does.
constexpr std::uint64_t kLongestLeave = 31 + 1;
/// In milliseconds. Half of what a hit has, so that another connection has time, too.
constexpr unsigned kLongestUnacknowledged = 5'000;

}  // namespace

void KeptConnection::watch(int socket) {
  _socket = Descriptor(socket < 0 ? -1 : fcntl(socket, F_DUPFD_CLOEXEC, 3));
  if (!_socket.isOpen()) return;
  // Where its network has gone, or a router on the way has forgotten it, nobody says so.
  setsockopt(_socket.number(), IPPROTO_TCP, TCP_USER_TIMEOUT, &kLongestUnacknowledged,
             sizeof kLongestUnacknowledged);
}

bool KeptConnection::isQuiet() {
  // Counted first: what comes between the two must not be missed.
  _isKnown = read(_before);
  char byte = 0;
  return _socket.isOpen() && recv(_socket.number(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
         errno == EAGAIN;
}

bool KeptConnection::hasBroughtNothing(bool isTls) const {
  Received now;
  // Under an emulated kernel: the transfer library's word counts, that not a line has come.
  if (!_isKnown || !read(now)) return true;
  if (now.segments == _before.segments) return true;
  return isTls && now.bytes - _before.bytes <= kLongestLeave;
}

bool KeptConnection::read(Received& received) const {
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(_socket.number(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return false;
  if (size < offsetof(tcp_info, tcpi_data_segs_in) + sizeof info.tcpi_data_segs_in) return false;
  received = {info.tcpi_bytes_received, info.tcpi_data_segs_in};
  return true;
}

}  // namespace orbiq
