#pragma once

#include <httplib.h>

#include <memory>
#include <string>

namespace orbiq::collector {

/// A server that listens already (a client may connect before `listen_after_bind` runs), and where.
struct BoundHttpServer {
  std::unique_ptr<httplib::Server> server;
  int port = 0;
};

/// Binds an HTTP server to an address; port 0 means a free one. It answers a kept-alive client
/// without delay and for as long as it likes, and many at once. Throws `std::runtime_error` if the
/// port is taken.
BoundHttpServer makeHttpServer(const std::string& address, int port);

}  // namespace orbiq::collector
