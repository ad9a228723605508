#include "tools/collector/CollectorServer.h"

#include <sys/socket.h>

#include <chrono>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "tools/collector/AuthorizationAnswer.h"
#include "tools/collector/Connections.h"

namespace orbiq::collector {
namespace {

using nlohmann::json;

constexpr std::string_view kAuthPath = "/auth/";
constexpr std::string_view kHitPath = "/hit/";

void answerJson(httplib::Response& response, const json& value) {
  // A client may have sent any bytes; they must not keep the answer from being JSON.
  response.set_content(value.dump(2, ' ', false, json::error_handler_t::replace) + "\n",
                       "application/json");
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
                                 std::ostream& lines)
    : _log(lines), _gate(std::move(behaviour)), _http(makeHttpServer(address, port)) {
  const bool isIPv6 = address.find(':') != std::string::npos;
  _baseUrl =
      "http://" + (isIPv6 ? "[" + address + "]" : address) + ":" + std::to_string(_http.port);
  // Before routing: a serial is taken as it stands on the request line, undecoded.
  _http.server->set_pre_routing_handler(
      [this](const auto& request, auto& response) { return serve(request, response); });
  addApi();
}

void CollectorServer::addApi() {
  httplib::Server& server = *_http.server;
  server.Get("/api/exchanges", [this](const auto&, auto& response) {
    json seen = _log.toJson();
    seen["held"] = _gate.held();
    answerJson(response, seen);
  });
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
      response.status = 400;
      answerJson(response, {{"error", "the body is not JSON"}});
    } catch (const std::invalid_argument& error) {
      response.status = 400;
      answerJson(response, {{"error", error.what()}});
    }
  });
}

httplib::Server::HandlerResponse CollectorServer::serve(const httplib::Request& request,
                                                        httplib::Response& response) {
  const bool isAuth = request.target.starts_with(kAuthPath);
  const bool isHit = request.target.starts_with(kHitPath);
  if (request.method != "GET" || (!isAuth && !isHit)) {
    return httplib::Server::HandlerResponse::Unhandled;
  }
  const Kind kind = isAuth ? Kind::Auth : Kind::Hit;
  Exchange seen{.time = std::chrono::system_clock::now(),
                .kind = kind,
                .serial = request.target.substr((isAuth ? kAuthPath : kHitPath).size()),
                .userAgent = request.get_header_value("User-Agent")};
  seen.status = exchange(kind, request, response);
  // Before the answer goes out: a client that has it finds its exchange counted.
  _log.add(std::move(seen));
  return httplib::Server::HandlerResponse::Handled;
}

int CollectorServer::exchange(Kind kind, const httplib::Request& request,
                              httplib::Response& response) {
  const auto connection = [&] { return connectionFrom(request.remote_port, port()); };
  const auto behaviour = _gate.pass(kind, [&] { return clientHasGone(connection()); });
  if (!behaviour) {
    // The server wants to write an answer in any case; it finds the connection at its end.
    shutdown(connection(), SHUT_RDWR);
    return 0;
  }
  response.status = kind == Kind::Auth ? behaviour->authStatus : behaviour->hitStatus;
  if (kind == Kind::Auth) authorize(*behaviour, response);
  return response.status;
}

void CollectorServer::authorize(const Behaviour& behaviour, httplib::Response& response) {
  const AuthorizationAnswer answer = authorizationAnswer(
      behaviour, _baseUrl + std::string(kHitPath), ++_session, std::chrono::system_clock::now());
  if (answer.date) response.set_header("Date", *answer.date);
  answerText(response, answer.body, answer.declaredLength);
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
  _http.server->stop();
  shutDownConnections(port());
  _gate.close();
}

}  // namespace orbiq::collector
