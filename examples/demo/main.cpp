#include <orbiq/orbiq.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <string_view>

/// Shows what the library does, step by step, in its own log lines:
///
///     orbiq-demo hits     audience hits for two serials
///     orbiq-demo stream   queues one streaming request, then waits to be killed
///     orbiq-demo resume   sends what an earlier process left in the requests file
///     orbiq-demo live     an audience hit every second until it is interrupted
namespace {

constexpr int kHitsPerSerial = 5;
constexpr std::chrono::seconds kPatience{30};

void showFile(std::string_view moment) {
  const std::filesystem::path path = orbiqAgent::sharedAgent().requestsFilePath().toStdString();
  std::error_code missing;
  const std::uintmax_t size = std::filesystem::file_size(path, missing);
  std::cout << "requests file " << moment << ": " << (missing ? 0 : size) << " bytes" << std::endl;
}

orbiq::Statistics showStatistics() {
  orbiq::Statistics statistics = orbiqAgent::sharedAgent().statistics();
  std::cout << "statistics: accepted " << statistics.accepted << " = sent " << statistics.sent
            << " + refused " << statistics.refused << " + answered with another status "
            << statistics.answeredWithAnotherStatus << " + given up " << statistics.givenUp
            << " + pushed out " << statistics.pushedOut << " + discarded at start "
            << statistics.discardedAtStart << " + discarded at the network's return "
            << statistics.discardedAtNetworkReturn << " + pending " << statistics.pending
            << "; last failure " << statistics.lastFailure.description() << std::endl;
  return statistics;
}

/// Waits until every hit is settled, and says what became of them; true if all were sent.
bool finish() {
  orbiqAgent::sharedAgent().flush(kPatience);
  showFile("at the end");
  const orbiq::Statistics statistics = showStatistics();
  return statistics.accepted > 0 && statistics.sent == statistics.accepted;
}

bool sendHits() {
  for (const char* serial : {"DEMO-1", "DEMO-2"}) {
    auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(serial);
    for (int hit = 0; hit < kHitsPerSerial; ++hit) tagger->sendHit();
  }
  showFile("after sendHit");
  return finish();
}

[[noreturn]] void queueStream() {
  const char* const serial = "DEMO-STREAM";
  auto& agent = orbiqAgent::sharedAgent();
  agent.addRequestToQueue(std::make_shared<orbiqRequest>(
      std::make_shared<const orbiq::Parameters>(agent.defaultParametersForRequest()),
      orbiq::RequestTypeStreaming, orbiq::SendingModeHost, serial,
      std::make_shared<orbiqTaggerID>(serial, agent.getPartialID(), true)));
  for (;;) pause();
}

bool resume() {
  orbiqAgent::sharedAgent();  // its first use loads the file
  return finish();
}

/// The signals that end the program, to be blocked before the library starts its first thread.
sigset_t endings() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void sendHitsUntilInterrupted() {
  const sigset_t signals = endings();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const std::array taggers{orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("DEMO-1"),
                           orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("DEMO-2")};
  const timespec second{.tv_sec = 1, .tv_nsec = 0};
  for (std::size_t hit = 0; sigtimedwait(&signals, nullptr, &second) < 0; ++hit) {
    if (errno == EAGAIN) taggers[hit % taggers.size()]->sendHit();
  }
  showStatistics();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc == 2 ? argv[1] : "";
  const orbiq::String refused = orbiq::HostApplication::describe({
      .bundleIdentifier = "tv.example.demo",
      .bundleName = "Demo",
      .shortVersion = "1.0",
  });
  if (!refused.isNull()) {
    std::cerr << refused.view() << "\n";
    return 1;
  }
  orbiqLogger::sharedLogger().setLoggingMode(orbiq::LoggingModeInfo);
  if (mode == "hits") return sendHits() ? 0 : 1;
  if (mode == "resume") return resume() ? 0 : 1;
  if (mode == "stream") queueStream();
  if (mode == "live") {
    sendHitsUntilInterrupted();
    return 0;
  }
  std::cerr << "usage: " << argv[0] << " hits|stream|resume|live\n";
  return 2;
}
