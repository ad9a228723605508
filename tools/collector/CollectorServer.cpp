#include "tools/collector/CollectorServer.h"

#include <sys/socket.h>

#include <chrono>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "tools/collector/AuthorizationAnswer.h"
#include "tools/collector/Connections.h"
#include "tools/collector/EventStream.h"
#include "tools/collector/Page.h"
#include "tools/collector/Visitor.h"

namespace orbiq::collector {
namespace {

using nlohmann::json;

constexpr std::string_view kAuthPath = "/auth/";
constexpr std::string_view kHitPath = "/hit/";
/// What is kept of the texts of an exchange.
constexpr std::size_t kLongestText = 4'096;
constexpr std::size_t kLongestName = 512;

/// The request as it came, but for the order of its headers.
std::string textOf(const httplib::Request& request) {
  std::string text = request.method + " " + request.target + " " + request.version;
  for (const auto& [name, value] : request.headers) {
    // These are the server's own additions.
    if (name.starts_with("REMOTE_") || name.starts_with("LOCAL_")) continue;
    text.append("\n").append(name).append(": ").append(value);
  }
  return text.substr(0, kLongestText);
}

bool isAuth(const httplib::Request& request) { return request.target.starts_with(kAuthPath); }
bool isHit(const httplib::Request& request) { return request.target.starts_with(kHitPath); }

Exchange exchangeOf(const httplib::Request& request) {
  Exchange seen;
  seen.time = std::chrono::system_clock::now();
  seen.kind = isAuth(request) ? Kind::Auth : Kind::Hit;
  seen.serial =
      request.target.substr((isAuth(request) ? kAuthPath : kHitPath).size(), kLongestName);
  seen.userAgent = request.get_header_value("User-Agent").substr(0, kLongestName);
  seen.request = textOf(request);
  return seen;
}

void answerJson(httplib::Response& response, const json& value) {
  // A client may have sent any bytes; they must not keep the answer from being JSON.
  response.set_content(value.dump(2, ' ', false, json::error_handler_t::replace) + "\n",
                       "application/json");
  response.set_header("Cache-Control", "no-store");
  response.set_header("X-Content-Type-Options", "nosniff");
}

void answerError(httplib::Response& response, int status, const std::string& error) {
  response.status = status;
  answerJson(response, {{"error", error}});
}

/// A body whose length may be declared longer than it is; then the connection ends after it.
void answerText(httplib::Response& response, const std::string& body, std::size_t declaredLength) {
  if (body.size() == declaredLength) {
    response.set_content(body, "text/plain");
    return;
  }
  response.set_content_provider(
      declaredLength, "text/plain", [body](std::size_t offset, std::size_t, auto& sink) {
        return offset < body.size() && sink.write(body.data() + offset, body.size() - offset);
      });
}

}  // namespace

CollectorServer::CollectorServer(const std::string& address, int port, Behaviour behaviour,
                                 std::ostream& lines, Record* record)
    : _log(lines, _changes, record),
      _gate(std::move(behaviour), _changes),
      _http(makeHttpServer(address, port)) {
  const bool isIPv6 = address.find(':') != std::string::npos;
  _baseUrl =
      "http://" + (isIPv6 ? "[" + address + "]" : address) + ":" + std::to_string(_http.port);
  // Before routing: a serial is taken as it stands on the request line, undecoded.
  _http.server->set_pre_routing_handler(
      [this](const auto& request, auto& response) { return serve(request, response); });
  // The library refuses some malformed requests itself, before it notes who sent them.
  _http.server->set_error_handler([this](const auto& request, auto& response) {
    if (request.remote_port >= 0 || !(isAuth(request) || isHit(request))) return;
    Exchange refused = exchangeOf(request);
    refused.status = response.status;
    _log.add(std::move(refused));
  });
  addApi();
  addEvents();
  addPage(*_http.server);
}

void CollectorServer::addApi() {
  httplib::Server& server = *_http.server;
  server.Get("/api/exchanges", [this](const auto&, auto& response) {
    json seen = _log.toJson();
    seen["held"] = _gate.held();
    answerJson(response, seen);
  });
  server.Get("/api/counts",
             [this](const auto&, auto& response) { answerJson(response, _log.countsJson()); });
  server.Post("/api/reset", [this](const auto&, auto& response) {
    _log.reset();
    answerJson(response, json::object());
  });
  server.Get("/api/behaviour", [this](const auto&, auto& response) {
    answerJson(response, toJson(_gate.behaviour()));
  });
  server.Post("/api/behaviour", [this](const auto& request, auto& response) {
    try {
      answerJson(response, toJson(_gate.change(json::parse(request.body))));
    } catch (const json::exception&) {
      answerError(response, 400, "the body is not JSON");
    } catch (const std::invalid_argument& error) {
      answerError(response, 400, error.what());
    }
  });
}

void CollectorServer::addEvents() {
  _http.server->Get("/api/events", [this](const auto& request, auto& response) {
    if (!_changes.enter()) {
      answerError(response, 503, "too many event streams are open");
      return;
    }
    // The browser gives the position itself when it connects anew, the page when it comes back.
    const std::string position = request.has_header("Last-Event-ID")
                                     ? request.get_header_value("Last-Event-ID")
                                     : request.get_param_value("after");
    const auto stream = std::make_shared<EventStream>(_log, _gate, _changes, position);
    response.set_header("Cache-Control", "no-store");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_chunked_content_provider(
        "text/event-stream",
        [stream, connection = connectionFrom(request.remote_port, port())](std::size_t,
                                                                           auto& sink) {
          const std::optional<std::string> text = stream->next();
          if (!text) {
            sink.done();
            return true;
          }
          if (text->empty()) return !clientHasGone(connection);
          return sink.write(text->data(), text->size());
        },
        [this](bool) { _changes.leave(); });
  });
}

httplib::Server::HandlerResponse CollectorServer::serve(const httplib::Request& request,
                                                        httplib::Response& response) {
  if (request.method != "GET" || !(isAuth(request) || isHit(request))) {
    return screen(request, response);
  }
  Exchange seen = exchangeOf(request);
  const auto began = std::chrono::steady_clock::now();
  exchange(seen, request, response);
  seen.took = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - began);
  // Before the answer goes out: a client that has it finds its exchange counted.
  _log.add(std::move(seen));
  return httplib::Server::HandlerResponse::Handled;
}

httplib::Server::HandlerResponse CollectorServer::screen(const httplib::Request& request,
                                                         httplib::Response& response) {
  const bool mayChange = request.method != "GET" && request.method != "HEAD";
  if ((!mayChange && !request.path.starts_with("/api/")) || !isForeign(request, port())) {
    return httplib::Server::HandlerResponse::Unhandled;
  }
  answerError(response, 403, "not from a page of another origin");
  // Its body is unread, and would be taken for the next request.
  if (mayChange) shutdown(connectionFrom(request.remote_port, port()), SHUT_RDWR);
  return httplib::Server::HandlerResponse::Handled;
}

void CollectorServer::exchange(Exchange& seen, const httplib::Request& request,
                               httplib::Response& response) {
  // Looked for once, and only if need be: it takes a look at every open connection.
  int found = -1;
  const auto connection = [&] {
    if (found < 0) found = connectionFrom(request.remote_port, port());
    return found;
  };
  const auto passage = _gate.pass(seen.kind, [&] { return clientHasGone(connection()); });
  seen.applied = applied(passage.behaviour, seen.kind);
  if (!passage.isAnswered) {
    // The server wants to write an answer in any case; it finds the connection at its end.
    shutdown(connection(), SHUT_RDWR);
    return;
  }
  const bool isAuth = seen.kind == Kind::Auth;
  if (isAuth) seen.answer = authorize(passage.behaviour, response);
  seen.status = isAuth ? passage.behaviour.authStatus : passage.behaviour.hitStatus;
  response.status = seen.status;
}

std::string CollectorServer::authorize(const Behaviour& behaviour, httplib::Response& response) {
  const AuthorizationAnswer answer = authorizationAnswer(
      behaviour, _baseUrl + std::string(kHitPath), ++_session, std::chrono::system_clock::now());
  if (answer.date) response.set_header("Date", *answer.date);
  answerText(response, answer.body, answer.declaredLength);
  return ("Date: " + answer.date.value_or("(none)") + "\n\n" + answer.body).substr(0, kLongestText);
}

bool CollectorServer::run() {
  _http.server->listen_after_bind();
  _ended = true;
  return _stopped;
}

void CollectorServer::stop() {
  // A stop before the server runs would be lost.
  while (!_http.server->is_running() && !_ended) std::this_thread::yield();
  _stopped = true;
  _changes.close();
  _http.server->stop();
  shutDownConnections(port());
  _gate.close();
}

}  // namespace orbiq::collector
