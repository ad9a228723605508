#include "tests/support/ScriptedServer.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <set>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq::test {
namespace {

/// Only so that a broken test says what it waited for; no passing test comes near.
constexpr std::chrono::seconds kGiveUpAfter{30};

/// Thrown through a script when its connection or the server has ended.
struct Over {};

using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

Context makeContext(const TlsIdentity* identity) {
  Context context(nullptr, SSL_CTX_free);
  if (identity == nullptr) return context;
  context.reset(SSL_CTX_new(TLS_server_method()));
  if (SSL_CTX_use_certificate(context.get(), identity->certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), identity->key.get()) != 1) {
    throw std::runtime_error("cannot serve TLS");
  }
  if (identity->speaksOnlyTls10) {
    SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0");  // or not even that one
    SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context.get(), TLS1_VERSION);
  }
  return context;
}

std::pair<int, std::uint16_t> bindLoopback() {
  const int bound = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(bound, generic, size) != 0 || getsockname(bound, generic, &size) != 0) {
    throw std::runtime_error("no loopback port");
  }
  return {bound, ntohs(address.sin_port)};
}

}  // namespace

struct ScriptedServer::State {
  explicit State(const TlsIdentity* identity) : tls(makeContext(identity)) {}

  bool waitFor(std::size_t State::* count, std::size_t wanted) {
    Lock lock(changed);
    while (this->*count < wanted) {
      if (!changed.waitFor(kGiveUpAfter)) return false;
    }
    return true;
  }

  const Context tls;
  mutable Condition changed;
  std::vector<std::string> requests ORBIQ_GUARDED_BY(changed);
  std::size_t requestsRead ORBIQ_GUARDED_BY(changed) = 0;
  std::size_t connections ORBIQ_GUARDED_BY(changed) = 0;
  std::size_t clientsGone ORBIQ_GUARDED_BY(changed) = 0;
  std::size_t ends ORBIQ_GUARDED_BY(changed) = 0;
  std::set<int> openSockets ORBIQ_GUARDED_BY(changed);
  bool isStopping ORBIQ_GUARDED_BY(changed) = false;
};

class ScriptedServer::Connection final : public ServedConnection {
 public:
  Connection(int socket, State& state) : _socket(socket), _state(state) {
    Lock lock(_state.changed);
    ++_state.connections;
    _state.openSockets.insert(_socket);
    if (_state.isStopping) shutdown(_socket, SHUT_RDWR);
  }
  ~Connection() override {
    if (_tls && SSL_is_init_finished(_tls.get())) SSL_shutdown(_tls.get());
    close();
  }

  void startTls() {
    if (!_state.tls) return;
    _tls.reset(SSL_new(_state.tls.get()));
    SSL_set_fd(_tls.get(), _socket);
    expectSome(SSL_accept(_tls.get()));
  }

  std::string readRequest() override {
    std::size_t end = 0;
    while ((end = _unread.find("\r\n\r\n")) == std::string::npos) readSome();
    std::string head = _unread.substr(0, end + 4);
    _unread.erase(0, end + 4);
    Lock lock(_state.changed);
    _state.requests.push_back(head);
    ++_state.requestsRead;
    _state.changed.broadcast();
    return head;
  }

  void send(std::string_view text) override {
    while (!text.empty()) {
      const int sent = _tls ? SSL_write(_tls.get(), text.data(), static_cast<int>(text.size()))
                            : static_cast<int>(write(_socket, text.data(), text.size()));
      expectSome(sent);
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  void reset() override {
    const linger atOnce{1, 0};
    setsockopt(_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close();
    throw Over();
  }

  void untilPeerCloses() override {
    for (;;) readSome();
  }
  int goDeaf() override {
    constexpr unsigned kLongestHeader = 60;  // with nothing behind it, it only acknowledges
    sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
                            BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLongestHeader, 0, 1),
                            BPF_STMT(BPF_RET, 0), BPF_STMT(BPF_RET, UINT32_MAX)};
    const sock_fprog program{4, filter};
    return setsockopt(_socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0 ? 0
                                                                                            : errno;
  }

 private:
  void close() {
    _tls.reset();
    Lock lock(_state.changed);
    // Once closed, the number may be another connection's.
    if (std::exchange(_isClosed, true)) return;
    _state.openSockets.erase(_socket);
    ::close(_socket);
    ++_state.ends;
    _state.changed.broadcast();
  }

  void readSome() {
    char bytes[16 * 1024];
    const int count = _tls ? SSL_read(_tls.get(), bytes, sizeof bytes)
                           : static_cast<int>(read(_socket, bytes, sizeof bytes));
    expectSome(count);
    _unread.append(bytes, static_cast<std::size_t>(count));
  }

  /// Nothing is moved only when the client has gone, or the server stops.
  void expectSome(int moved) {
    if (moved > 0) return;
    Lock lock(_state.changed);
    ++_state.clientsGone;
    _state.changed.broadcast();
    throw Over();
  }

  const int _socket;
  bool _isClosed = false;
  State& _state;
  std::unique_ptr<SSL, decltype(&SSL_free)> _tls{nullptr, SSL_free};
  std::string _unread;
};

ScriptedServer::ScriptedServer(Serve serve, const TlsIdentity* tls)
    : _serve(std::move(serve)), _state(std::make_unique<State>(tls)) {
  std::tie(_listener, _port) = bindLoopback();
  if (listen(_listener, SOMAXCONN) != 0) throw std::runtime_error("cannot listen");
  // All threads inherit this: no signal of the test's, and no SIGPIPE, is theirs.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  _acceptor = std::thread([this] { acceptAll(); });
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

ScriptedServer::ScriptedServer(std::vector<Script> scripts, const TlsIdentity* tls)
    : ScriptedServer(
          [scripts = std::move(scripts)](ServedConnection& connection, std::size_t index) {
            if (index >= scripts.size()) return;
            for (const Step& step : scripts[index]) step(connection);
          },
          tls) {}

ScriptedServer::ScriptedServer(Handler handler, const TlsIdentity* tls)
    : ScriptedServer(
          [handler = std::move(handler)](ServedConnection& connection, std::size_t) {
            for (;;) connection.send(handler(connection.readRequest()));
          },
          tls) {}

ScriptedServer::~ScriptedServer() {
  {
    Lock lock(_state->changed);
    _state->isStopping = true;
    // Ends the calls that wait for them.
    for (const int socket : _state->openSockets) shutdown(socket, SHUT_RDWR);
  }
  shutdown(_listener, SHUT_RDWR);
  _acceptor.join();
  for (std::thread& connection : _connections) connection.join();
  ::close(_listener);
}

void ScriptedServer::acceptAll() {
  for (std::size_t index = 0;; ++index) {
    const int socket = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) return;
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto connection = std::make_unique<Connection>(socket, *_state);
    _connections.emplace_back([this, index, connection = std::move(connection)] {
      try {
        connection->startTls();
        _serve(*connection, index);
      } catch (const Over&) {
      }
    });
  }
}

std::string ScriptedServer::url(std::string_view path) const {
  const std::string scheme = _state->tls ? "https" : "http";
  return scheme + "://127.0.0.1:" + std::to_string(_port) + std::string(path);
}

std::vector<std::string> ScriptedServer::requests() const {
  Lock lock(_state->changed);
  return _state->requests;
}

std::size_t ScriptedServer::connectionCount() const {
  Lock lock(_state->changed);
  return _state->connections;
}

bool ScriptedServer::waitForRequests(std::size_t count) const {
  return _state->waitFor(&State::requestsRead, count);
}

bool ScriptedServer::waitForClientsGone(std::size_t count) const {
  return _state->waitFor(&State::clientsGone, count);
}

bool ScriptedServer::waitForEnds(std::size_t count) const {
  return _state->waitFor(&State::ends, count);
}

ClosedPort::ClosedPort() { std::tie(_socket, _port) = bindLoopback(); }

ClosedPort::~ClosedPort() { ::close(_socket); }

namespace steps {

Step readRequest() { return &ServedConnection::readRequest; }
Step reset() { return &ServedConnection::reset; }
Step untilPeerCloses() { return &ServedConnection::untilPeerCloses; }
Step send(std::string text) {
  return [text = std::move(text)](ServedConnection& connection) { connection.send(text); };
}
Step drip(std::string text) {
  return [text = std::move(text)](ServedConnection& connection) {
    for (const char character : text) {
      std::this_thread::sleep_for(std::chrono::milliseconds{1});
      connection.send({&character, 1});
    }
  };
}

}  // namespace steps

std::string answer(int status, std::string_view body, std::string_view headers) {
  std::string text = "HTTP/1.1 " + std::to_string(status) + " Status\r\n";
  text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return text.append(headers).append("\r\n").append(body);
}

std::string requestTarget(const std::string& requestHead) {
  const std::size_t start = requestHead.find(' ') + 1;
  return requestHead.substr(start, requestHead.find(' ', start) - start);
}

}  // namespace orbiq::test
