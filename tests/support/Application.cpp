#include "tests/support/Application.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

namespace orbiq::test {
namespace {

constexpr std::chrono::seconds kGiveUp{60};

std::size_t countIn(const std::vector<std::string>& lines, const std::string& part) {
  const auto has = [&](const std::string& line) { return line.find(part) != line.npos; };
  return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), has));
}

}  // namespace

void LogRecorder::record(const LogLine& line) {
  const Lock lock(_changed);
  _lines.emplace_back(line.text);
  _changed.broadcast();
}

std::vector<std::string> LogRecorder::lines() const {
  const Lock lock(_changed);
  return _lines;
}

std::size_t LogRecorder::count(const std::string& part) const { return countIn(lines(), part); }

bool LogRecorder::waitFor(const std::string& part, std::size_t times) const {
  const auto deadline = std::chrono::steady_clock::now() + kGiveUp;
  const Lock lock(_changed);
  while (countIn(_lines, part) < times) {
    if (!_changed.waitFor(deadline - std::chrono::steady_clock::now())) return false;
  }
  return true;
}

AccountServer::AccountServer()
    : _authorizations([this](const std::string&) { return answer(200, grant("full")); }),
      _hits([](const std::string&) { return answer(200); }),
      _server([this](const std::string& head) { return answerTo(head); }) {}

std::string AccountServer::grant(const std::string& access) const {
  return "access=" + access + "|host=" + hitServer() + "|cmsVI=7";
}

void AccountServer::answerAuthorizations(Handler handler) {
  const Lock lock(_lock);
  _authorizations = std::move(handler);
}

void AccountServer::grantHost(const std::string& host) {
  answerAuthorizations([body = "access=full|host=" + host + "|cmsVI=7"](const std::string&) {
    return answer(200, body);
  });
}

void AccountServer::answerHits(Handler handler) {
  const Lock lock(_lock);
  _hits = std::move(handler);
}

std::string AccountServer::answerTo(const std::string& head) const {
  Handler handler;
  {
    const Lock lock(_lock);
    handler = requestTarget(head).starts_with("/auth/") ? _authorizations : _hits;
  }
  return handler(head);
}

std::vector<std::string> AccountServer::requestLines(const std::string& pathPrefix) const {
  std::vector<std::string> lines;
  for (const std::string& head : _server.requests()) {
    if (requestTarget(head).starts_with(pathPrefix))
      lines.push_back(head.substr(0, head.find('\r')));
  }
  return lines;
}

Application::Application(const std::string& authorizationServer,
                         const std::function<void(HostDescription&, Platform&)>& adjust) {
  HostDescription host{.bundleIdentifier = "tv.example.player",
                       .bundleName = "Player",
                       .shortVersion = "4.2",
                       .authorizationServer = authorizationServer,
                       .logSink = [log = _log](const LogLine& line) { log->record(line); }};
  Platform platform{.clock = _clock};
  if (adjust) adjust(host, platform);
  EXPECT_EQ(HostApplication::describe(host), nullptr);
  EXPECT_EQ(Platform::install(platform), nullptr);
  orbiqLogger::sharedLogger().setLoggingMode(LoggingModeInfo);
}

void Application::enterForeground() {
  NotificationCenter::defaultCenter().postNotificationName(
      UIApplicationWillEnterForegroundNotification);
}

std::shared_ptr<orbiqAudienceTagger> Application::tagger(const String& serial) {
  return orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(serial);
}

std::shared_ptr<orbiqRequest> streamingRequest(SendingMode mode, const String& serial) {
  return std::make_shared<orbiqRequest>(
      std::make_shared<const Parameters>(Parameters{{"cmsRK", "7"}}), RequestTypeStreaming, mode,
      serial, std::make_shared<orbiqTaggerID>(serial, 3, true));
}

RequestQueue savedRequests(const std::string& path) {
  const std::string copy = path + ".copy";
  std::filesystem::copy_file(path, copy, std::filesystem::copy_options::overwrite_existing);
  return RequestsFile(copy).load();
}

std::vector<std::uint64_t> counts(const Statistics& statistics) {
  return {statistics.accepted,         statistics.sent,
          statistics.refused,          statistics.answeredWithAnotherStatus,
          statistics.givenUp,          statistics.pushedOut,
          statistics.discardedAtStart, statistics.discardedAtNetworkReturn,
          statistics.pending};
}

}  // namespace orbiq::test
