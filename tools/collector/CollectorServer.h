#pragma once

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>

#include "tools/collector/Behaviour.h"
#include "tools/collector/Changes.h"
#include "tools/collector/ExchangeLog.h"
#include "tools/collector/Gate.h"
#include "tools/collector/HttpServerFactory.h"
#include "tools/collector/Record.h"

namespace orbiq::collector {

/// Authorization server (`/auth/<serial>`), hit server (`/hit/<serial>`), the interface to look at
/// and steer both (`/api/...`) and a page that uses it (`/`), on one port. The interface serves no
/// web page but this one.
class CollectorServer {
 public:
  /// Listens at once; throws as `makeHttpServer` does. One line per exchange goes to `lines`, and
  /// one to `record` if there is one.
  CollectorServer(const std::string& address, int port, Behaviour behaviour, std::ostream& lines,
                  Record* record = nullptr);

  int port() const { return _http.port; }
  /// Without a path: "http://127.0.0.1:8080".
  const std::string& baseUrl() const { return _baseUrl; }

  /// Serves until `stop`; false if the server ended for another reason.
  bool run();
  /// From any thread, once. Held requests end without an answer, event streams with their end.
  void stop();

 private:
  void addApi();
  void addEvents();
  httplib::Server::HandlerResponse serve(const httplib::Request& request,
                                         httplib::Response& response);
  /// Keeps web pages of other origins away from the interface.
  httplib::Server::HandlerResponse screen(const httplib::Request& request,
                                          httplib::Response& response);
  void exchange(Exchange& seen, const httplib::Request& request, httplib::Response& response);
  std::string authorize(const Behaviour& behaviour, httplib::Response& response);

  Changes _changes;
  ExchangeLog _log;
  Gate _gate;
  BoundHttpServer _http;
  std::string _baseUrl;
  std::atomic<std::uint64_t> _session = 0;
  std::atomic<bool> _stopped = false;
  std::atomic<bool> _ended = false;
};

}  // namespace orbiq::collector
