// How fast the agent empties a full queue, against a bare loop of requests to the same server.
#include <curl/curl.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Requests.h"
#include "bench/Surroundings.h"
#include "orbiq/orbiq.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"
#include "tools/collector/CollectorServer.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 15;
constexpr std::size_t kHits = 500;
constexpr std::size_t kFewerHits[] = {1, 10, 100};
/// Of the bare loop's rate, beside a server that takes as long as one on a near network.
constexpr double kLeastRate = 0.97;
/// Of the bare loop's processor time.
constexpr double kMostWork = 1.8;
constexpr std::chrono::minutes kGiveUp{2};
constexpr char kSerial[] = "241041208600";
constexpr char kSender[] = "orbiqRequestSen";
constexpr char kHttp[] = "http";
constexpr char kInstant[] = "instant";
constexpr char kWaiting[] = "waiting";
constexpr std::chrono::milliseconds kServersTime{1};

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

/// Looks only for a request's end and answers after that time.
class BareServer final : public Server {
 public:
  explicit BareServer(std::chrono::milliseconds time) : _time(time) {}
  std::string url(const std::string& path) const override { return _server.url(path); }

 private:
  std::string answerTo(const std::string& head) {
    if (_time > _time.zero()) std::this_thread::sleep_for(_time);
    countExchange();
    if (!head.starts_with("GET /auth/")) return test::answer(200);
    return test::answer(200, "access=full|host=" + url("/hit/") + "|cmsVI=7");
  }

  const std::chrono::milliseconds _time;
  test::ScriptedServer _server{[this](const std::string& head) { return answerTo(head); }};
};

std::unique_ptr<Server> makeServer(const std::string& kind) {
  if (kind == kHttp) return std::make_unique<HttpServer>();
  return std::make_unique<BareServer>(kind == kWaiting ? kServersTime : kServersTime.zero());
}

/// Microseconds that the thread of that name, as the kernel cuts it, has run.
double processorTime(std::string_view name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string found;
    double nanoseconds = 0;
    std::ifstream(task.path() / "comm") >> found;
    if (found == name && std::ifstream(task.path() / "schedstat") >> nanoseconds) {
      return nanoseconds / 1000;
    }
  }
  throw std::runtime_error("no thread is called so");
}

/// What something takes, in microseconds.
struct Cost {
  double time = 0;
  double work = 0;  ///< of the processor, for the thread that sends
};

class Agent {
 public:
  Agent(Server& server, const std::string& directory, std::size_t hits)
      : _server(server), _directory(directory), _hits(hits) {
    describeApplication(server.url("/auth/"), directory);
  }

  /// From the signal that starts the sending to the save after the last removal.
  Cost drain() {
    fillQueue();
    const std::string path = orbiqAgent::sharedAgent().requestsFilePath().toStdString();
    _server.expectHits(static_cast<std::int64_t>(_hits));
    setReachable(true);
    const double before = processorTime(kSender);
    const double time = microseconds([&] {
      NotificationCenter::defaultCenter().postNotificationName(
          UIApplicationWillEnterForegroundNotification);
      // Whoever watches the saves makes them slower, so only the last one is waited for.
      _server.waitForExpectedHits();
      while (savedIn(path) != 0) std::this_thread::yield();
    });
    const Statistics statistics = orbiqAgent::sharedAgent().statistics();
    if (statistics.sent != 1 + _hits || statistics.pending != 0) {
      throw std::runtime_error("not all hits were sent");
    }
    return {time, processorTime(kSender) - before};
  }

 private:
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

  Server& _server;
  const std::string _directory;
  const std::size_t _hits;
};

std::size_t discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

Cost costOf(const std::function<void()>& get, std::size_t hits) {
  get();  // opens the connection
  timespec before{}, after{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
  const double time = microseconds([&] {
    for (std::size_t hit = 0; hit < hits; ++hit) get();
  });
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
  return {time, 1e6 * static_cast<double>(after.tv_sec - before.tv_sec) +
                    static_cast<double>(after.tv_nsec - before.tv_nsec) / 1000};
}

Cost bareLoop(const std::string& url, std::size_t hits) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(),
                                                                 curl_easy_cleanup);
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_USERAGENT, orbiqAgent::userAgent().toStdString().c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, discard);
  return costOf(
      [&] {
        long status = 0;
        if (curl_easy_perform(easy.get()) != CURLE_OK ||
            curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status) != CURLE_OK ||
            status != 200) {
          throw std::runtime_error("the bare loop got no answer");
        }
      },
      hits);
}

/// Prints the times of the agent and of the bare loop, then the work of both.
int drainingRun(const std::vector<std::string>& arguments) {
  const std::string& kind = arguments.at(2);
  const std::size_t hits = std::stoul(arguments.at(3));
  const std::unique_ptr<Server> server = makeServer(kind);
  Agent agent(*server,
              arguments.at(1) + "/draining-" + kind + arguments.at(3) + "-" + arguments.at(0),
              hits);
  const bool agentFirst = std::stoul(arguments.at(0)) % 2 == 0;
  const Cost before = agentFirst ? agent.drain() : Cost();
  const Cost bare = bareLoop(server->hitUrl(), hits);
  const Cost drained = agentFirst ? before : agent.drain();
  std::printf("%f %f %f %f\n", drained.time, bare.time, drained.work, bare.work);
  return 0;
}

const test::RoleRegistration kDrainingRun("draining", drainingRun);

struct Measured {
  const char* kind;
  const char* server;
  std::optional<Aim> rate = {};
  std::optional<Aim> work = {};
};
constexpr Measured kMeasured[] = {
    {kHttp, "the collector", {}, Aim{Aim::Kind::kAtMost, kMostWork}},
    {kWaiting, "a server that answers after 1 ms", Aim{Aim::Kind::kAtLeast, kLeastRate}},
    {kInstant, "a server that only answers"},
};

void measure(const std::string& directory) {
  std::printf("draining %zu hits over one connection; medians of %zu runs\n", kHits, kRuns);
  std::vector<std::vector<double>> http;
  for (const Measured& one : kMeasured) {
    const auto rows =
        rowsOfRuns("draining", kRuns, 4, {directory, one.kind, std::to_string(kHits)});
    if (http.empty()) http = rows;
    const std::string server = one.server;
    // Of rates, so the times stand the other way round.
    reportSamples("draining", "agent's rate / bare rate, " + server, ratiosOf(rows, 1, 0), "",
                  one.rate);
    reportSamples("draining", "agent's processor time / a bare loop's, " + server,
                  ratiosOf(rows, 2, 3), "", one.work);
  }
  for (const std::size_t hits : kFewerHits) {
    const auto fewer = rowsOfRuns("draining", kRuns, 4, {directory, kHttp, std::to_string(hits)});
    std::vector<double> ratios;
    for (std::size_t run = 0; run < kRuns; ++run) {
      ratios.push_back(http[run][0] / kHits / (fewer[run][0] / static_cast<double>(hits)));
    }
    const std::string name = "a hit's time, a queue of " + std::to_string(kHits) +
                             " being drained / of " + std::to_string(hits);
    // Each save writes what the queue holds: to grow as the queue does would be five and fifty.
    const Aim linear{Aim::Kind::kAtMost, 2};
    reportSamples("draining", name, ratios, "", linear);
  }
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
