// What costs grow with: the queue, the file, the taggers.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Requests.h"
#include "bench/Surroundings.h"
#include "orbiq/orbiq.h"
#include "orbiq/services/platform/files/AtomicFile.h"
#include "orbiq/services/platform/loop/SerialQueue.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 15;
/// So few that what grows stays about the same.
constexpr std::size_t kMore = 15;
constexpr std::size_t kCalls = 300;
constexpr std::size_t kLoads = 25;
constexpr std::size_t kMostTaggers = 1'000;
constexpr char kSerial[] = "241041208600";
/// Nobody listens there.
constexpr char kNoServer[] = "http://127.0.0.1:9/";

/// An application whose queue holds so many requests, the first of which an authorization server
/// has taken and never answers: the agent's threads rest, and what is added stays aside.
class StalledApplication {
 public:
  StalledApplication(const std::string& directory, std::size_t depth) {
    describeApplication(_server.url("/auth/"), directory);
    setReachable(false);
    SaveCounter saves(directory);
    const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
    for (std::size_t hit = 0; hit < depth; ++hit) tagger->sendHit();
    saves.waitFor(depth);
    setReachable(true);
    NotificationCenter::defaultCenter().postNotificationName(
        UIApplicationWillEnterForegroundNotification);
    if (!_server.waitForRequests(1)) throw std::runtime_error("nobody asks for an authorization");
  }

 private:
  test::ScriptedServer _server{
      std::vector<test::Script>{{test::steps::readRequest(), test::steps::untilPeerCloses()}}};
};

/// Prints the microseconds of `sendHit` while so many requests wait.
int queued(const std::vector<std::string>& arguments) {
  const std::size_t depth = std::stoul(arguments.at(2));
  const StalledApplication application(arguments.at(1) + "/queued" + arguments.at(2), depth);
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
  std::vector<double> calls;
  for (std::size_t call = 0; call < kCalls; ++call) {
    calls.push_back(microseconds([&] { tagger->sendHit(); }));
  }
  if (orbiqAgent::sharedAgent().statistics().pending != depth + kCalls) return 1;
  std::printf("%f\n", median(calls));
  return 0;
}
const test::RoleRegistration kQueued("queued", queued);

/// The processor's nanoseconds of this process's thread of that name, as soon as it sleeps: the
/// kernel brings them up to date only then.
std::uint64_t timeOfSleeping(const std::string& threadName) {
  for (;; std::this_thread::yield()) {
    bool isThere = false;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::string number, name, state;
      std::ifstream(task.path() / "stat") >> number >> name >> state;
      if (name != "(" + threadName + ")") continue;
      isThere = true;
      std::uint64_t time = 0;
      if (state == "S" && std::ifstream(task.path() / "schedstat") >> time) return time;
    }
    if (!isThere) throw std::runtime_error("no thread is named " + threadName);
  }
}

/// Takes the processor's time of a thread that is woken for single saves.
class SavingThread {
 public:
  SavingThread(std::string name, const std::string& directory)
      : _name(std::move(name)), _counter(directory) {}

  /// Causes a save and waits for it.
  void save(const std::function<void()>& cause) {
    cause();
    _counter.waitFor(++_saves);
  }
  void measureSave(const std::function<void()>& cause) {
    const std::uint64_t before = timeOfSleeping(_name);
    save(cause);
    _times.push_back(static_cast<double>(timeOfSleeping(_name) - before) / 1000);
  }
  /// The microseconds that a quarter of the saves did not exceed: whatever disturbs adds to them.
  double microsecondsPerSave() const { return quantile(_times, 0.25); }

 private:
  const std::string _name;
  SaveCounter _counter;
  std::size_t _saves = 0;
  std::vector<double> _times;
};

/// An audience hit that has not been authorized, as those in a queue that nobody has sent from.
std::shared_ptr<orbiqRequest> nextHit(Requests& requests) {
  auto request = requests.next();
  while (request->requestType() != RequestTypeAudience) request = requests.next();
  request->setAuth(nullptr);
  return request;
}

/// Prints the processor's microseconds that the agent's thread takes for an addition to so many
/// requests, and those of the saving that is a part of it.
int added(const std::vector<std::string>& arguments) {
  const std::size_t depth = std::stoul(arguments.at(2));
  const std::string directory = arguments.at(1) + "/added" + arguments.at(2);
  describeApplication(kNoServer, directory);
  setReachable(false);
  SavingThread agent("orbiqRequestHan", directory);
  Requests requests;
  RequestQueue queue;  // the agent's, as it must be
  const auto add = [&] {
    queue.push_back(nextHit(requests));
    orbiqAgent::sharedAgent().addRequestToQueue(queue.back());
  };

  // The same saves in turn with the agent's, on a thread that is woken for each as well: in a loop,
  // with all at hand, they would take half as long. And all of them: a file that has grown with the
  // queue takes longer to write than one that was written at once.
  SavingThread another("benchSaver", directory + "/another");
  const std::string path = directory + "/another/orbiqCache/requests.ser";
  RequestsFile file(path);
  SerialQueue saver("benchSaver");
  const auto save = [&] {
    saver.async([&] {
      file.added(queue.back());
      file.save(queue);
    });
  };
  while (queue.size() < depth) {
    agent.save(add);
    another.save(save);
  }
  for (std::size_t more = 0; more < kMore; ++more) {
    agent.measureSave(add);
    another.measureSave(save);
  }
  const String agentsPath = orbiqAgent::sharedAgent().requestsFilePath();
  if (savedIn(path) != savedIn(agentsPath.toStdString())) {
    throw std::runtime_error("the agent's queue is another one");
  }
  std::printf("%f %f\n", agent.microsecondsPerSave(), another.microsecondsPerSave());
  return 0;
}
const test::RoleRegistration kAdded("added", added);

/// Prints the microseconds of `sendHit` while so many taggers are there, and of obtaining another
/// one.
int tagged(const std::vector<std::string>& arguments) {
  const std::size_t count = std::stoul(arguments.at(2));
  const StalledApplication application(arguments.at(1) + "/tagged" + arguments.at(2), 1);
  std::vector<std::shared_ptr<orbiqAudienceTagger>> taggers;
  taggers.reserve(count + kMore);
  const auto obtain = [&] {
    taggers.push_back(orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(
        std::to_string(100'000'000'000 + taggers.size() * 7'919)));
  };
  while (taggers.size() < count) obtain();
  // Whatever their number, the same calls have been made before.
  for (std::size_t call = 0; call < kMostTaggers; ++call) taggers[call % count]->sendHit();
  std::vector<double> obtained, calls;
  for (std::size_t call = 0; call < kCalls; ++call) {
    const auto& tagger = taggers[call % count];
    calls.push_back(microseconds([&] { tagger->sendHit(); }));
  }
  for (std::size_t more = 0; more < kMore; ++more) obtained.push_back(microseconds(obtain));
  std::printf("%f %f\n", median(calls), median(obtained));
  return 0;
}
const test::RoleRegistration kTagged("tagged", tagged);

/// Prints the microseconds that a file of so many requests takes to load: those of the
/// fastest load, as one lasts so long that another process often comes between.
int loaded(const std::vector<std::string>& arguments) {
  const std::size_t count = std::stoul(arguments.at(2));
  const std::string path = arguments.at(1) + "/loaded" + arguments.at(2) + ".ser";
  RequestQueue queue;
  for (Requests requests; queue.size() < count;) queue.push_back(requests.next());
  RequestsFile(path).save(queue);
  std::vector<double> times;
  for (std::size_t run = 0; run < kLoads; ++run) {
    queue.clear();
    RequestsFile file(path);
    times.push_back(microseconds([&] { queue = file.load(); }));
    if (queue.size() != count) throw std::runtime_error("not all requests were loaded");
  }
  std::printf("%f\n", quantile(times, 0));
  return 0;
}
const test::RoleRegistration kLoaded("loaded", loaded);

// --- who asks for it

using Rows = std::vector<std::vector<double>>;

void reportMicroseconds(const std::string& name, const std::vector<double>& samples) {
  report({"growth", name, median(samples), "µs", std::nullopt, quantile(samples, 0.25),
          quantile(samples, 0.75)});
}

void reportRatio(const std::string& name, const Rows& large, const Rows& small, std::size_t index,
                 double divisor, const Aim& aim) {
  std::vector<double> ratios;
  for (std::size_t run = 0; run < large.size(); ++run) {
    ratios.push_back(large[run].at(index) / small[run].at(index) / divisor);
  }
  std::printf("  %s: %s\n", name.c_str(), ratioText(ratios, aim).c_str());
  reportRatios("growth", name, ratios, aim);
}

/// The sizes take turns, since the machine is not equally fast all the time.
std::vector<Rows> rowsOfSizes(const char* role, const std::vector<std::size_t>& sizes,
                              std::size_t columns, const std::string& directory) {
  std::vector<Rows> rows(sizes.size());
  for (std::size_t run = 0; run < kRuns; ++run) {
    const std::string place = directory + "/" + std::to_string(run);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      rows[i].push_back(rowsOfRuns(role, 1, columns, {place, std::to_string(sizes[i])}).front());
    }
  }
  return rows;
}

// What does not grow.
constexpr Aim kConstant{Aim::Kind::kAtMost, 1.25};

void measureQueue(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, 100, 499};
  const std::vector<Rows> rows = rowsOfSizes("queued", sizes, 1, directory);
  std::printf("sendHit while the server stalls, in us; medians of %zu processes\n", kRuns);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::printf("  %8zu requests wait %10.2f\n", sizes[i], median(columnOf(rows[i], 0)));
    reportMicroseconds("sendHit, " + std::to_string(sizes[i]) + " requests wait",
                       columnOf(rows[i], 0));
  }
  reportRatio("sendHit, 499 requests wait / 1", rows[3], rows[0], 0, 1, kConstant);
}

void measureAdditions(const std::string& directory) {
  // The last addition to the most of them still pushes none out.
  const std::vector<std::size_t> sizes{1, 10, 100, 485};
  const std::vector<Rows> rows = rowsOfSizes("added", sizes, 2, directory);
  std::printf("the processor's time of an addition, in us; medians of %zu processes\n", kRuns);
  std::printf("  %8s %10s %10s %10s   %s\n", "requests", "addition", "saving", "the rest",
              "half of the runs");
  std::vector<std::vector<double>> rests(sizes.size());
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    for (const auto& row : rows[i]) rests[i].push_back(row[0] - row[1]);
    std::printf("  %8zu %10.1f %10.1f %10.1f   %.1f to %.1f\n", sizes[i],
                median(columnOf(rows[i], 0)), median(columnOf(rows[i], 1)), median(rests[i]),
                quantile(rests[i], 0.25), quantile(rests[i], 0.75));
    reportMicroseconds("an addition but for saving, " + std::to_string(sizes[i]) + " requests wait",
                       rests[i]);
  }
  std::vector<double> growth;
  for (std::size_t run = 0; run < kRuns; ++run) growth.push_back(rests[3][run] - rests[1][run]);
  std::printf("  the rest, 485 requests - 10: %.1f, half of the runs %.1f to %.1f\n",
              median(growth), quantile(growth, 0.25), quantile(growth, 0.75));
  reportMicroseconds("an addition but for saving, 485 requests wait - 10", growth);
}

void measureTaggers(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, kMostTaggers};
  const std::vector<Rows> rows = rowsOfSizes("tagged", sizes, 2, directory);
  std::printf("taggers, in us; medians of %zu processes\n  %8s %10s %18s\n", kRuns, "taggers",
              "sendHit", "obtaining another");
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::printf("  %8zu %10.2f %18.2f\n", sizes[i], median(columnOf(rows[i], 0)),
                median(columnOf(rows[i], 1)));
    const std::string suffix = ", " + std::to_string(sizes[i]) + " taggers";
    reportMicroseconds("sendHit" + suffix, columnOf(rows[i], 0));
    reportMicroseconds("obtaining another tagger" + suffix, columnOf(rows[i], 1));
  }
  reportRatio("sendHit, 1000 taggers / 1", rows[2], rows[0], 0, 1, kConstant);
  reportRatio("obtaining another tagger, 1000 taggers / 1", rows[2], rows[0], 1, 1,
              {Aim::Kind::kAtMost, 2});
}

void measureFile(const std::string& directory) {
  const std::vector<std::size_t> sizes{1, 10, 100, 500};
  const std::vector<Rows> rows = rowsOfSizes("loaded", sizes, 1, directory);
  std::printf("loading a file, in us; medians of %zu processes\n", kRuns);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::printf("  %8zu %10.1f\n", sizes[i], median(columnOf(rows[i], 0)));
    reportMicroseconds("loading " + std::to_string(sizes[i]) + " requests", columnOf(rows[i], 0));
  }
  reportRatio("loading, per request, 500 / 100", rows[3], rows[2], 0, 5, {Aim::Kind::kBelow, 1.25});
}

void measure(const std::string& directory) {
  measureQueue(directory);
  measureAdditions(directory);
  measureTaggers(directory);
  measureFile(directory);
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
