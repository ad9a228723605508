#include "tools/collector/HttpServerFactory.h"

#include <sys/socket.h>

#include <limits>
#include <stdexcept>

#include "tools/collector/ConnectionThreads.h"

namespace orbiq::collector {
namespace {

constexpr std::time_t kKeepAliveSeconds = 60;
constexpr std::size_t kLargestBody = 65'536;

}  // namespace

BoundHttpServer makeHttpServer(const std::string& address, int port) {
  auto server = std::make_unique<httplib::Server>();
  server->new_task_queue = [] { return new ConnectionThreads; };
  // Its defaults delay every second answer by the peer's late acknowledgement, and close a
  // connection after five requests.
  server->set_tcp_nodelay(true);
  server->set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
  server->set_keep_alive_timeout(kKeepAliveSeconds);
  server->set_payload_max_length(kLargestBody);

  // Its default is SO_REUSEPORT, by which two collectors could share a port without a word.
  int listener = -1;
  server->set_socket_options([&listener](int descriptor) {
    const int yes = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    listener = descriptor;
  });
  const int bound = port == 0 ? server->bind_to_any_port(address)
                              : (server->bind_to_port(address, port) ? port : -1);
  server->set_socket_options([](int) {});
  if (bound <= 0) {
    throw std::runtime_error("cannot listen on " + address + " port " + std::to_string(port));
  }
  listen(listener, SOMAXCONN);  // its own backlog of 5 makes a crowd of clients wait a second
  return {std::move(server), bound};
}

}  // namespace orbiq::collector
