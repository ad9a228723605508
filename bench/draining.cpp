// How fast the agent empties a full queue, against a bare loop of requests to the same server.
#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Surroundings.h"
#include "orbiq/orbiq.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/services/platform/Platform.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 15;
constexpr std::size_t kHits = 500;
/// Of the bare loop's rate.
constexpr double kAim = 0.6;
constexpr std::chrono::minutes kGiveUp{2};
constexpr char kSerial[] = "241041208600";

/// Authorization and hit server; says when it has so many hits.
class Server {
 public:
  std::string authorizationServer() const { return _server.url("/auth/"); }
  std::string hitUrl() const { return _server.url("/hit/") + kSerial; }
  std::size_t connections() const { return _server.connectionCount(); }

  void expectHits(std::int64_t hits) {
    _lastHit = {};
    _expected = hits;
  }
  void waitForExpectedHits() {
    if (_lastHit.get_future().wait_for(kGiveUp) != std::future_status::ready) {
      throw std::runtime_error("not all hits came");
    }
  }

 private:
  std::string answerTo(const std::string& head) {
    if (!head.starts_with("GET /auth/")) {
      if (_expected.fetch_sub(1) == 1) _lastHit.set_value();
      return test::answer(200);
    }
    return test::answer(200, "access=full|host=" + _server.url("/hit/") + "|cmsVI=7");
  }

  /// Those still to come; what is not expected takes it below zero, which means nothing.
  std::atomic<std::int64_t> _expected{0};
  std::promise<void> _lastHit;
  test::ScriptedServer _server{[this](const std::string& head) { return answerTo(head); }};
};

class Agent {
 public:
  Agent(Server& server, const std::string& directory)
      : _server(server), _saves(directory), _fullQueue(directory + "/full.ser") {
    describeApplication(server.authorizationServer(), directory);
    _tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
    // Authorizes, and opens the connection.
    _tagger->sendHit();
    _saves.waitFor(2);
  }

  /// Microseconds from the signal that starts the sending to the save after the last removal.
  double drain() {
    setReachable(false);
    for (std::size_t hit = 0; hit < kHits; ++hit) _tagger->sendHit();
    _saves.waitFor(2 + kHits);
    std::filesystem::copy_file(orbiqAgent::sharedAgent().requestsFilePath().toStdString(),
                               _fullQueue);
    _server.expectHits(std::int64_t{kHits});
    setReachable(true);
    const double time = microseconds([&] {
      NotificationCenter::defaultCenter().postNotificationName(
          UIApplicationWillEnterForegroundNotification);
      // Not by the saves, or this thread would be woken by each.
      _server.waitForExpectedHits();
      _saves.waitFor(2 + 2 * kHits);
    });
    const Statistics statistics = orbiqAgent::sharedAgent().statistics();
    if (statistics.sent != 1 + kHits || statistics.pending != 0) {
      throw std::runtime_error("not all hits were sent");
    }
    return time;
  }

  /// A copy of the file as it was before the queue was drained.
  const std::string& fullQueue() const { return _fullQueue; }

 private:
  Server& _server;
  SaveCounter _saves;
  const std::string _fullQueue;
  std::shared_ptr<orbiqAudienceTagger> _tagger;
};

std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

/// Microseconds of so many requests on one connection, which is opened before.
double bareLoop(const std::string& url) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(),
                                                                 curl_easy_cleanup);
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_USERAGENT, orbiqAgent::userAgent().toStdString().c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, discard);
  const auto get = [&] {
    long status = 0;
    if (curl_easy_perform(easy.get()) != CURLE_OK ||
        curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status) != CURLE_OK ||
        status != 200) {
      throw std::runtime_error("the bare loop got no answer");
    }
  };
  get();
  return microseconds([&] {
    for (std::size_t hit = 0; hit < kHits; ++hit) get();
  });
}

/// The same through the client that the agent sends with.
double clientLoop(const std::string& url) {
  const HttpRequest request{*Url::fromText(url), orbiqAgent::userAgent(),
                            Platform::current().hitTimeout};
  const auto get = [&] {
    if (!Platform::httpClient().send(request).response) {
      throw std::runtime_error("the client got no answer");
    }
  };
  get();
  return microseconds([&] {
    for (std::size_t hit = 0; hit < kHits; ++hit) get();
  });
}

/// Microseconds of the saves alone that the agent makes while it drains the queue in this file.
double savesAlone(const std::string& path) {
  RequestsFile file;
  RequestQueue queue = file.load(path);
  if (queue.size() != kHits) throw std::runtime_error("the copied queue is not whole");
  return microseconds([&] {
    while (!queue.empty()) {
      queue.pop_front();
      file.save(path, queue);
    }
  });
}

/// Prints the times of the agent, of its client alone, of its saves alone and of the bare loop.
int drainingRun(const std::vector<std::string>& arguments) {
  Server server;
  Agent agent(server, arguments.at(1) + "/draining" + arguments.at(0));
  const bool agentFirst = std::stoul(arguments.at(0)) % 2 == 0;
  const double before = agentFirst ? agent.drain() : 0;
  const double bare = bareLoop(server.hitUrl());
  const double client = clientLoop(server.hitUrl());
  const double agentTime = agentFirst ? before : agent.drain();
  if (server.connections() != 3) throw std::runtime_error("a connection was not kept alive");
  std::printf("%f %f %f %f\n", agentTime, client, savesAlone(agent.fullQueue()), bare);
  return 0;
}

const test::RoleRegistration kDrainingRun("draining", drainingRun);

void printSide(const char* name, double time) {
  const double perHit = time / static_cast<double>(kHits);
  std::printf("  %-36s %10.1f %10.0f\n", name, perHit, 1e6 / perHit);
}

void measure(const std::string& directory) {
  const auto rows = rowsOfRuns("draining", kRuns, 4, {directory});
  const std::vector<double> row = mediansOf(rows);
  std::printf("draining %zu hits over one connection; medians of %zu runs\n", kHits, kRuns);
  std::printf("  %-36s %10s %10s\n", "", "us per hit", "per second");
  printSide("agent, saving after each hit", row[0]);
  printSide("its client alone", row[1]);
  printSide("its saves alone", row[2]);
  printSide("bare libcurl loop", row[3]);
  // Of rates, so the times stand the other way round.
  std::printf("  client's rate / bare rate: ratio %.2f\n", median(ratiosOf(rows, 3, 1)));
  std::printf("  agent's rate / bare rate: %s\n",
              ratioText(ratiosOf(rows, 3, 0), {Aim::Kind::kAtLeast, kAim}).c_str());
  // What the agent adds to a hit does not grow with the server's time to answer.
  const double perHit = 1.0 / static_cast<double>(kHits);
  const double enough = (kAim * row[0] - row[3]) * perHit / (1 - kAim);
  if (enough > 0) {
    std::printf("  computed: met by a server that takes %.0f us longer to answer\n", enough);
  }
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
