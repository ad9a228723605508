// How long `sendHit` keeps its caller while the server stalls, alone and among other callers.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Surroundings.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 15;
constexpr std::size_t kCalls = 2'000;
constexpr std::size_t kRestedCalls = 300;
constexpr std::size_t kThreads = 8;
// Of all threads together; enough for the rate of a run to last for tens of milliseconds.
constexpr std::size_t kCrowdCalls = 40'000;
constexpr const char* kSerial = "241041208600";

using Dictionary = std::map<std::string, std::string>;

/// The least that a call has to do that composes a hit and hands it over to another thread.
class Baseline {
 public:
  void handOver(Dictionary dictionary) {
    const std::lock_guard lock(_mutex);
    _queue.push_back(std::move(dictionary));
  }

  /// The seven entries of a streaming request, the longest that there is.
  Dictionary streamingRequest() {
    Dictionary dictionary;
    dictionary.emplace("serial", kSerial);
    dictionary.emplace("tn", "on-ios");
    dictionary.emplace("v", "1.0");
    dictionary.emplace("n", std::to_string(100'000'000 + _random() % 900'000'000));
    dictionary.emplace("did", "6D92078A-8246-4BA4-AE5B-76104861E7DC");
    dictionary.emplace("cmsRK", std::to_string(++_rank));
    dictionary.emplace("cmsPS", std::to_string(_rank % 13));
    return dictionary;
  }

 private:
  std::mt19937_64 _random{20'260'101};
  std::uint32_t _rank = 0;
  std::mutex _mutex;
  std::deque<Dictionary> _queue;
};

/// The same, and a thread that sleeps until there is something to take.
class SleepingTaker {
 public:
  void handOver(Dictionary dictionary) {
    {
      const std::lock_guard lock(_mutex);
      _queue.push_back(std::move(dictionary));
    }
    _condition.notify_one();
  }

 private:
  void takeAll(const std::stop_token& stop) {
    std::unique_lock lock(_mutex);
    while (_condition.wait(lock, stop, [this] { return !_queue.empty(); })) _queue.pop_front();
  }

  std::mutex _mutex;
  std::condition_variable_any _condition;
  std::deque<Dictionary> _queue;
  std::jthread _thread{[this](const std::stop_token& stop) { takeAll(stop); }};
};

/// Prints p50 and p99 of `sendHit`, then of the baseline.
int stalledRun(const std::vector<std::string>& arguments) {
  const StalledApplication application(arguments.at(1) + "/alone" + arguments.at(0), 1);
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
  Baseline baseline;
  std::vector<double> hits, sevens;
  for (std::vector<double>* side : {&hits, &sevens}) side->reserve(kCalls);
  for (std::size_t call = 0; call < kCalls; ++call) {
    hits.push_back(microseconds([&] { tagger->sendHit(); }));
    sevens.push_back(microseconds([&] { baseline.handOver(baseline.streamingRequest()); }));
  }
  for (const std::vector<double>& side : {hits, sevens}) {
    std::printf("%f %f ", quantile(side, 0.5), quantile(side, 0.99));
  }
  std::printf("\n");
  return 0;
}

/// Prints p50 and p99 of a `sendHit` that comes when all is sent and every thread sleeps, then of
/// the baseline.
int restedRun(const std::vector<std::string>& arguments) {
  std::string hits;
  const test::ScriptedServer server([&hits](const std::string& head) {
    return test::answer(200, test::requestTarget(head).starts_with("/auth/")
                                 ? "access=full|host=" + hits + "|cmsVI=7"
                                 : "");
  });
  hits = server.url("/hit/");
  describeApplication(server.url("/auth/"), arguments.at(1) + "/rested" + arguments.at(0));
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
  const auto rest = [] {
    constexpr std::chrono::milliseconds kPause{1};
    while (orbiqAgent::sharedAgent().statistics().pending != 0) std::this_thread::sleep_for(kPause);
    std::this_thread::sleep_for(kPause);  // the last removal is being saved
  };
  tagger->sendHit();
  Baseline baseline;
  SleepingTaker taker;
  std::vector<double> sends, handOvers;
  for (std::size_t call = 0; call < kRestedCalls; ++call) {
    rest();
    sends.push_back(microseconds([&] { tagger->sendHit(); }));
    rest();
    handOvers.push_back(microseconds([&] { taker.handOver(baseline.streamingRequest()); }));
  }
  for (const std::vector<double>& side : {sends, handOvers}) {
    std::printf("%f %f ", quantile(side, 0.5), quantile(side, 0.99));
  }
  std::printf("\n");
  return 0;
}

/// Prints the hits per second of so many threads, with so many taggers among them.
int crowdRun(const std::vector<std::string>& arguments) {
  const std::size_t threads = std::stoul(arguments.at(2));
  const std::size_t taggers = std::stoul(arguments.at(3));
  const StalledApplication application(arguments.at(1), 1);

  using Clock = std::chrono::steady_clock;
  std::latch ready(static_cast<std::ptrdiff_t>(threads) + 1);
  std::latch start(1);
  std::vector<std::jthread> crowd;
  for (std::size_t i = 0; i < threads; ++i) {
    crowd.emplace_back([&, tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(
                               kSerial + std::to_string(i % taggers))] {
      tagger->sendHit();  // what a thread's first call makes is not counted
      ready.count_down();
      start.wait();
      for (std::size_t call = 0; call < kCrowdCalls / threads; ++call) tagger->sendHit();
    });
  }
  ready.arrive_and_wait();
  const auto begin = Clock::now();
  start.count_down();
  crowd.clear();  // joins
  const std::chrono::duration<double> took = Clock::now() - begin;
  if (orbiqAgent::sharedAgent().statistics().accepted != 1 + threads + kCrowdCalls) return 1;
  std::printf("%f\n", static_cast<double>(kCrowdCalls) / took.count());
  return 0;
}

const test::RoleRegistration kStalledRun("stalled", stalledRun);
const test::RoleRegistration kRestedRun("rested", restedRun);
const test::RoleRegistration kCrowdRun("crowd", crowdRun);

void show(const std::string& name, const std::vector<double>& ratios, std::optional<Aim> aim = {}) {
  reportSamples("caller", name, ratios, "", aim);
}

void measureAlone(const std::string& directory) {
  const auto rows = rowsOfRuns("stalled", kRuns, 4, {directory});
  std::printf("%zu calls of sendHit while the server stalls; %zu runs\n", kCalls, kRuns);
  show("sendHit, p50 / seven entries and a locked push", ratiosOf(rows, 0, 2),
       Aim{Aim::Kind::kAtMost, 2});
  show("sendHit, p99 / seven entries and a locked push", ratiosOf(rows, 1, 3),
       Aim{Aim::Kind::kAtMost, 5});
}

void measureRested(const std::string& directory) {
  const auto rows = rowsOfRuns("rested", kRuns, 4, {directory});
  show("sendHit at rest, p50 / seven entries and waking a thread", ratiosOf(rows, 0, 2));
  show("sendHit at rest, p99 / seven entries and waking a thread", ratiosOf(rows, 1, 3));
}

void measureCrowd(const std::string& directory) {
  struct Crowd {
    const char* name;
    std::size_t threads, taggers;
    std::vector<double> rates, ratios;
  };
  std::vector<Crowd> crowds{{"one thread", 1, 1, {}, {}},
                            {"eight threads, a tagger each", kThreads, kThreads, {}, {}},
                            {"eight threads, one tagger", kThreads, 1, {}, {}}};
  for (std::size_t run = 0; run < kRuns; ++run) {
    // None of them always comes first.
    for (std::size_t i = 0; i < crowds.size(); ++i) {
      const std::size_t at = (run + i) % crowds.size();
      const std::string place =
          directory + "/crowd" + std::to_string(run) + "-" + std::to_string(at);
      const auto rate = rowsOfRuns(
          "crowd", 1, 1,
          {place, std::to_string(crowds[at].threads), std::to_string(crowds[at].taggers)});
      crowds[at].rates.push_back(rate.front().front());
    }
    for (Crowd& crowd : crowds) {
      crowd.ratios.push_back(crowd.rates.back() / crowds.front().rates.back());
    }
  }
  for (std::size_t i = 1; i < crowds.size(); ++i) {
    show("rate of " + std::string(crowds[i].name) + " / of one thread", crowds[i].ratios,
         Aim{Aim::Kind::kAtLeast, 1});
  }
}

void measure(const std::string& directory) {
  measureAlone(directory);
  measureRested(directory);
  measureCrowd(directory);
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
