#include "tools/collector/Connections.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <functional>

namespace orbiq::collector {
namespace {

using Ask = int (*)(int, sockaddr*, socklen_t*);

/// The port that `getsockname` or `getpeername` gives; 0 if the descriptor has none.
int portOf(int descriptor, Ask ask) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (ask(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port);
  if (address.ss_family != AF_INET6) return 0;
  return ntohs(reinterpret_cast<sockaddr_in6&>(address).sin6_port);
}

/// Calls `visit(descriptor, clientPort)` for each connection to `serverPort` until it says true.
void visitConnections(int serverPort, const std::function<bool(int, int)>& visit) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    const int descriptor = std::atoi(entry.path().filename().c_str());
    if (portOf(descriptor, getsockname) != serverPort) continue;
    const int clientPort = portOf(descriptor, getpeername);
    if (clientPort != 0 && visit(descriptor, clientPort)) return;
  }
}

}  // namespace

int connectionFrom(int clientPort, int serverPort) {
  int found = -1;
  visitConnections(serverPort, [&](int descriptor, int port) {
    if (port == clientPort) found = descriptor;
    return found >= 0;
  });
  return found;
}

void shutDownConnections(int serverPort) {
  visitConnections(serverPort, [](int descriptor, int) {
    shutdown(descriptor, SHUT_RDWR);
    return false;
  });
}

bool clientHasGone(int connection) {
  pollfd descriptor{.fd = connection, .events = POLLRDHUP, .revents = 0};
  return poll(&descriptor, 1, 0) > 0 && (descriptor.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

}  // namespace orbiq::collector
