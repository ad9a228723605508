#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "orbiq/orbiq.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/threads/Mutex.h"
#include "tests/support/ManualClock.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq {

/// How GoogleTest shows a text.
inline void PrintTo(const String& text, std::ostream* stream) { *stream << text.description(); }

}  // namespace orbiq

namespace orbiq::test {

/// Keeps the library's log lines and waits for them.
class LogRecorder {
 public:
  void record(const LogLine& line);
  std::vector<std::string> lines() const;
  std::size_t count(const std::string& part) const;
  /// Waits until `times` lines hold the part. False if that has not come about when a test should
  /// be given up.
  [[nodiscard]] bool waitFor(const std::string& part, std::size_t times = 1) const;

 private:
  mutable Condition _changed;
  std::vector<std::string> _lines ORBIQ_GUARDED_BY(_changed);
};

/// Authorization and hit server in one: "/auth/SERIAL" and "/hit/SERIAL". Its answers may be
/// changed at any time.
class AccountServer {
 public:
  AccountServer();

  std::string authorizationServer() const { return _server.url("/auth/"); }
  std::string hitServer() const { return _server.url("/hit/"); }
  /// "access=...|host=HITSERVER|cmsVI=7".
  std::string grant(const std::string& access) const;

  void answerAuthorizations(Handler handler);
  /// Full access to another hit server.
  void grantHost(const std::string& host);
  void answerHits(Handler handler);
  /// Lines of requests to paths that begin with the prefix, such as "GET /hit/ABC HTTP/1.1".
  std::vector<std::string> requestLines(const std::string& pathPrefix) const;
  ScriptedServer& server() { return _server; }

 private:
  std::string answerTo(const std::string& head) const;

  mutable Mutex _lock;
  Handler _authorizations ORBIQ_GUARDED_BY(_lock);
  Handler _hits ORBIQ_GUARDED_BY(_lock);
  ScriptedServer _server;
};

/// Where nobody listens. No hit is ever sent: a fallback names no hit server, so the head stays.
inline constexpr char kNoServer[] = "http://127.0.0.1:9/";

/// The application around the library in a test: described host, manual clock, recorded log. One
/// per process, before any use of the library.
class Application {
 public:
  explicit Application(const std::string& authorizationServer,
                       const std::function<void(HostDescription&, Platform&)>& adjust = {});

  ManualClock& clock() { return *_clock; }
  const LogRecorder& log() const { return *_log; }
  static void enterForeground();
  /// The factory, by a shorter name.
  static std::shared_ptr<orbiqAudienceTagger> tagger(const String& serial);

 private:
  std::shared_ptr<ManualClock> _clock = std::make_shared<ManualClock>();
  std::shared_ptr<LogRecorder> _log = std::make_shared<LogRecorder>();
};

/// A streaming request of the serial "ABC" for the hit that its authorization names.
std::shared_ptr<orbiqRequest> streamingRequest(SendingMode mode = SendingModeHost,
                                               const String& serial = "ABC");

/// The queue in the agent's file or another, read with a lock of its own.
RequestQueue savedRequests(
    const std::string& path = orbiqAgent::sharedAgent().requestsFilePath().toStdString());

/// The counts in the order of their declaration, for comparison as a whole.
std::vector<std::uint64_t> counts(const Statistics& statistics);

}  // namespace orbiq::test
