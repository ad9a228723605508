// How fast the agent empties a full queue, against a bare loop of requests to the same server.
#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Surroundings.h"
#include "orbiq/orbiq.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/services/platform/AtomicFile.h"
#include "orbiq/services/platform/KeyedArchiver.h"
#include "orbiq/services/platform/Platform.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"
#include "tools/collector/CollectorServer.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 15;
constexpr std::size_t kHits = 500;
constexpr std::size_t kFewerHits[] = {1, 10, 100};
/// Of the bare loop's rate.
constexpr double kAim = 0.85;
constexpr std::chrono::minutes kGiveUp{2};
constexpr char kSerial[] = "241041208600";
constexpr char kHttp[] = "http";
constexpr char kInstant[] = "instant";

/// Authorization and hit server; says when it has so many hits.
class Server {
 public:
  virtual ~Server() = default;
  virtual std::string url(const std::string& path) const = 0;

  std::string hitUrl() const { return url("/hit/") + kSerial; }
  void expectHits(std::int64_t hits) {
    _lastHit = {};
    _expected = hits;
  }
  void waitForExpectedHits() {
    if (_lastHit.get_future().wait_for(kGiveUp) != std::future_status::ready) {
      throw std::runtime_error("not all hits came");
    }
  }

 protected:
  void countExchange() {
    if (_expected.fetch_sub(1) == 1) _lastHit.set_value();
  }

 private:
  /// Those still to come; what is not expected takes it below zero, which means nothing.
  std::atomic<std::int64_t> _expected{0};
  std::promise<void> _lastHit;
};

/// The collector, which does what a server does: it parses, keeps and prints what it is asked.
class HttpServer final : public Server, private std::streambuf {
 public:
  HttpServer() : _thread([this] { _collector.run(); }) {}
  ~HttpServer() override {
    _collector.stop();
    _thread.join();
  }

  std::string url(const std::string& path) const override { return _collector.baseUrl() + path; }

 private:
  // One line for each exchange is printed, before its answer goes out.
  int overflow(int character) override {
    if (character == '\n') countExchange();
    return 0;
  }

  std::ostream _lines{this};
  collector::CollectorServer _collector{"127.0.0.1", 0, {}, _lines};
  std::thread _thread;
};

/// Looks only for a request's end and answers at once: faster than any server that does something.
class InstantServer final : public Server {
 public:
  std::string url(const std::string& path) const override { return _server.url(path); }

 private:
  std::string answerTo(const std::string& head) {
    countExchange();
    if (!head.starts_with("GET /auth/")) return test::answer(200);
    return test::answer(200, "access=full|host=" + url("/hit/") + "|cmsVI=7");
  }

  test::ScriptedServer _server{[this](const std::string& head) { return answerTo(head); }};
};

class Agent {
 public:
  Agent(Server& server, const std::string& directory, std::size_t hits)
      : _server(server), _directory(directory), _hits(hits), _fullQueue(directory + "/full.ser") {
    describeApplication(server.url("/auth/"), directory);
  }

  /// Microseconds from the signal that starts the sending to the save after the last removal.
  double drain() {
    fillQueue();
    const std::string path = orbiqAgent::sharedAgent().requestsFilePath().toStdString();
    std::filesystem::copy_file(path, _fullQueue);
    const std::string emptyQueue(requestArchiver().finish().all);
    _server.expectHits(static_cast<std::int64_t>(_hits));
    setReachable(true);
    const double time = microseconds([&] {
      NotificationCenter::defaultCenter().postNotificationName(
          UIApplicationWillEnterForegroundNotification);
      // Whoever watches the saves makes them slower, so only the last one is waited for.
      _server.waitForExpectedHits();
      while (readFile(path, SIZE_MAX) != emptyQueue) std::this_thread::yield();
    });
    const Statistics statistics = orbiqAgent::sharedAgent().statistics();
    if (statistics.sent != 1 + _hits || statistics.pending != 0) {
      throw std::runtime_error("not all hits were sent");
    }
    return time;
  }

  /// Opens the connection, too.
  void fillQueue() {
    SaveCounter saves(_directory);
    const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
    tagger->sendHit();
    saves.waitFor(2);
    setReachable(false);
    for (std::size_t hit = 0; hit < _hits; ++hit) tagger->sendHit();
    saves.waitFor(2 + _hits);
  }

  /// A copy of the file as it was before the queue was drained.
  const std::string& fullQueue() const { return _fullQueue; }

 private:
  Server& _server;
  const std::string _directory;
  const std::size_t _hits;
  const std::string _fullQueue;
};

std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

/// Microseconds of so many requests on one connection, which is opened before. After each, the
/// processor is kept busy for so many microseconds with nothing.
double bareLoop(const std::string& url, std::size_t hits, double pause = 0) {
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
  using Clock = std::chrono::steady_clock;
  const auto rest =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::micro>(pause));
  return microseconds([&] {
    for (std::size_t hit = 0; hit < hits; ++hit) {
      get();
      const Clock::time_point end = Clock::now() + rest;
      while (pause > 0 && Clock::now() < end) continue;
    }
  });
}

/// The same through the client that the agent sends with.
double clientLoop(const std::string& url, std::size_t hits) {
  const HttpRequest request{*Url::fromText(url), orbiqAgent::userAgent(),
                            Platform::current().hitTimeout};
  const auto get = [&] {
    if (!Platform::send(request).response) {
      throw std::runtime_error("the client got no answer");
    }
  };
  get();
  return microseconds([&] {
    for (std::size_t hit = 0; hit < hits; ++hit) get();
  });
}

/// Microseconds of the saves alone that the agent makes while it drains the queue in this file.
double savesAlone(const std::string& path, std::size_t hits) {
  RequestsFile file;
  RequestQueue queue = file.load(path);
  if (queue.size() != hits) throw std::runtime_error("the copied queue is not whole");
  return microseconds([&] {
    while (!queue.empty()) {
      queue.pop_front();
      file.save(path, queue);
    }
  });
}

/// Prints the times of the agent, of its client alone, of its saves alone, of the bare loop, and of
/// one that pauses for as long as a save takes.
int drainingRun(const std::vector<std::string>& arguments) {
  const std::string& kind = arguments.at(2);
  const std::size_t hits = std::stoul(arguments.at(3));
  const std::unique_ptr<Server> made =
      kind == kHttp ? std::unique_ptr<Server>(new HttpServer) : std::make_unique<InstantServer>();
  Server& server = *made;
  Agent agent(server,
              arguments.at(1) + "/draining-" + kind + arguments.at(3) + "-" + arguments.at(0),
              hits);
  const bool agentFirst = std::stoul(arguments.at(0)) % 2 == 0;
  const double before = agentFirst ? agent.drain() : 0;
  const double bare = bareLoop(server.hitUrl(), hits);
  const double client = clientLoop(server.hitUrl(), hits);
  const double agentTime = agentFirst ? before : agent.drain();
  const double saves = savesAlone(agent.fullQueue(), hits);
  const double pausing = bareLoop(server.hitUrl(), hits, saves / static_cast<double>(hits));
  std::printf("%f %f %f %f %f\n", agentTime, client, saves, bare, pausing);
  return 0;
}

const test::RoleRegistration kDrainingRun("draining", drainingRun);

void printSide(const char* name, double time) {
  const double perHit = time / static_cast<double>(kHits);
  std::printf("  %-36s %10.1f %10.0f\n", name, perHit, 1e6 / perHit);
}

void print(const std::string& server, const std::vector<std::vector<double>>& rows) {
  const std::vector<double> row = mediansOf(rows);
  std::printf("  %-36s %10s %10s\n", server.c_str(), "us per hit", "per second");
  printSide("  agent, saving after each hit", row[0]);
  printSide("  its client alone", row[1]);
  printSide("  its saves alone", row[2]);
  printSide("  bare libcurl loop", row[3]);
  printSide("  the same, pausing for a save's time", row[4]);
}

void measure(const std::string& directory) {
  const auto http = rowsOfRuns("draining", kRuns, 5, {directory, kHttp, std::to_string(kHits)});
  const auto instant =
      rowsOfRuns("draining", kRuns, 5, {directory, kInstant, std::to_string(kHits)});
  std::printf("draining %zu hits over one connection; medians of %zu runs\n", kHits, kRuns);
  print("to the collector", http);
  print("to a server that only answers", instant);
  // Of rates, so the times stand the other way round.
  std::printf("  client's rate / bare rate: ratio %.2f\n", median(ratiosOf(http, 3, 1)));
  std::printf("  agent's rate / bare rate, collector: %s\n",
              ratioText(ratiosOf(http, 3, 0), {Aim::Kind::kAtLeast, kAim}).c_str());
  std::printf("  agent's rate / bare rate, server that only answers: ratio %.2f\n",
              median(ratiosOf(instant, 3, 0)));
  const char* const attainable =
      "agent's rate / bare rate with a pause of a save's time, collector";
  std::printf("  %s: ratio %.2f\n", attainable, median(ratiosOf(http, 4, 0)));
  reportRatios("draining", attainable, ratiosOf(http, 4, 0), {});
  reportRatios("draining", "agent's rate / bare rate, collector", ratiosOf(http, 3, 0),
               Aim{Aim::Kind::kAtLeast, kAim});
  reportRatios("draining", "agent's rate / bare rate, server that only answers",
               ratiosOf(instant, 3, 0), {});
  for (const std::size_t hits : kFewerHits) {
    const auto fewer = rowsOfRuns("draining", kRuns, 5, {directory, kHttp, std::to_string(hits)});
    std::vector<double> ratios;
    for (std::size_t run = 0; run < kRuns; ++run) {
      ratios.push_back(http[run][0] / kHits / (fewer[run][0] / static_cast<double>(hits)));
    }
    const std::string name = "a hit's time, a queue of " + std::to_string(kHits) +
                             " being drained / of " + std::to_string(hits);
    // Each save writes what the queue holds: to grow as the queue does would be five and fifty.
    const Aim linear{Aim::Kind::kAtMost, 2};
    std::printf("  %s: %s\n", name.c_str(), ratioText(ratios, linear).c_str());
    reportRatios("draining", name, ratios, linear);
  }
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
