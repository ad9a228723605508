#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/TestCertificates.h"

namespace orbiq::test {

/// One accepted connection, as a step of a script sees it. Each call returns when it is done. When
/// the connection or the server ends, a call does not return and the rest of the script falls away.
class ServedConnection {
 public:
  virtual ~ServedConnection() = default;

  /// Reads and records a request's head, up to and with its empty line.
  virtual std::string readRequest() = 0;
  virtual void send(std::string_view text) = 0;
  /// Closes so that the peer gets a reset.
  virtual void reset() = 0;
  virtual void untilPeerCloses() = 0;
  /// From now on the kernel drops what is sent here, unacknowledged. Returns 0 or the error number:
  /// not every user may have that.
  virtual int goDeaf() = 0;
};

using Step = std::function<void(ServedConnection&)>;
/// What is done with one connection, in order. At its end the connection is closed.
using Script = std::vector<Step>;
/// Makes the whole answer to a request's head. Called on the connection's own thread.
using Handler = std::function<std::string(const std::string& requestHead)>;

namespace steps {
Step readRequest();
Step send(std::string text);
Step reset();
Step untilPeerCloses();
/// Sends the text byte by byte, with a millisecond before each.
Step drip(std::string text);
}  // namespace steps

/// An answer with a Content-Length. `headers` are further lines, each with its "\r\n".
std::string answer(int status, std::string_view body = {}, std::string_view headers = {});
/// The target in a request's first line ("/path?query").
std::string requestTarget(const std::string& requestHead);

/// A server on a loopback port of its own that misbehaves as told. Its threads are joined, and all
/// that they wait for is ended, when it is destroyed. Thread-safe.
class ScriptedServer {
 public:
  /// Serves the first connection by the first script, and so on; closes further connections at
  /// once.
  explicit ScriptedServer(std::vector<Script> scripts, const TlsIdentity* tls = nullptr);
  /// Answers every request, on connections that the client may keep alive.
  explicit ScriptedServer(Handler handler, const TlsIdentity* tls = nullptr);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::uint16_t port() const { return _port; }
  /// The URL of a path that begins with "/".
  std::string url(std::string_view path = "/") const;

  /// The heads of all requests so far, in the order of their arrival.
  std::vector<std::string> requests() const;
  std::size_t connectionCount() const;

  /// Waits until so many requests were read, connections ended by their clients, connections closed
  /// here. False if that has not come about when a test should be given up.
  [[nodiscard]] bool waitForRequests(std::size_t count) const;
  [[nodiscard]] bool waitForClientsGone(std::size_t count) const;
  [[nodiscard]] bool waitForEnds(std::size_t count) const;

 private:
  using Serve = std::function<void(ServedConnection&, std::size_t index)>;
  struct State;
  class Connection;

  ScriptedServer(Serve serve, const TlsIdentity* tls);
  void acceptAll();

  const Serve _serve;
  const std::unique_ptr<State> _state;
  int _listener = -1;
  std::uint16_t _port = 0;
  std::vector<std::thread> _connections;
  std::thread _acceptor;
};

/// A loopback port that refuses connections for as long as this lives.
class ClosedPort {
 public:
  ClosedPort();
  ~ClosedPort();
  ClosedPort(const ClosedPort&) = delete;
  ClosedPort& operator=(const ClosedPort&) = delete;
  std::uint16_t port() const { return _port; }

 private:
  int _socket = -1;
  std::uint16_t _port = 0;
};

}  // namespace orbiq::test
