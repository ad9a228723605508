// What the library takes while nothing happens: wake-ups, threads, memory.
#include <curl/curl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Surroundings.h"
#include "orbiq/orbiq.h"
#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRuns = 5;
constexpr std::size_t kFullQueue = SendingRules::kMostRequests;
constexpr std::size_t kManyTaggers = 1'000;
constexpr std::chrono::seconds kWatched{10};
constexpr std::chrono::milliseconds kPause{5};
constexpr std::chrono::minutes kGiveUp{1};
constexpr char kSerial[] = "241041208600";
constexpr char kReady[] = "ready";

void await(const char* what, const std::function<bool()>& hasCome) {
  const auto end = std::chrono::steady_clock::now() + kGiveUp;
  while (!hasCome()) {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error(what);
    std::this_thread::sleep_for(kPause);
  }
}

// --- the process that rests

Statistics statistics() { return orbiqAgent::sharedAgent().statistics(); }

void sendHits(std::size_t count) {
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
  for (std::size_t hit = 0; hit < count; ++hit) tagger->sendHit();
}

void awaitSent(std::uint64_t hits) {
  await("the hits were not sent", [=] { return statistics().sent == hits; });
}

/// One hit is sent, others are still to be sent to a network that has gone.
void queueOffline(std::size_t count) {
  sendHits(1);
  awaitSent(1);
  setReachable(false);
  sendHits(count);
  await("the hits were not queued", [=] { return statistics().pending == count; });
}

void oneRequestWithoutTheLibrary(const std::string& url) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* const easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, (url + kSerial).c_str());
  curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  if (curl_easy_perform(easy) != CURLE_OK) throw std::runtime_error("no answer");
  curl_easy_cleanup(easy);
}

void comeTo(const std::string& state) {
  if (state == "empty") {
    sendHits(1);
    awaitSent(1);
  } else if (state == "offline") {
    queueOffline(1);
  } else if (state == "full") {
    queueOffline(kFullQueue);
  } else if (state == "drained") {
    queueOffline(kFullQueue);
    setReachable(true);
    NotificationCenter::defaultCenter().postNotificationName(
        UIApplicationWillEnterForegroundNotification);
    awaitSent(1 + kFullQueue);
  } else if (state == "unanswered") {
    sendHits(1);
    await("the authorization did not fail",
          [] { return !statistics().lastFailure.isNull() || statistics().refused != 0; });
  } else if (state == "taggers") {
    sendHits(1);
    awaitSent(1);
    for (std::size_t i = 0; i < kManyTaggers; ++i) {
      orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(std::to_string(i));
    }
  } else {
    throw std::runtime_error("no state " + state);
  }
}

/// Comes to that state, says so after its number, and does nothing more until it is told to end;
/// then it says how many hits still wait.
int rest(const std::vector<std::string>& arguments) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // or it would rest for ever where a measurement is broken off
  sigset_t end;
  sigemptyset(&end);
  sigaddset(&end, SIGTERM);
  sigprocmask(SIG_BLOCK, &end, nullptr);
  const std::string& state = arguments.at(0);
  const std::string& url = arguments.at(1);
  if (state == "baseline") {
    oneRequestWithoutTheLibrary(url);
  } else {
    describeApplication(url, arguments.at(2));
    comeTo(state);
  }
  std::printf("%d\n%s\n", static_cast<int>(getpid()), kReady);
  std::fflush(stdout);
  int signal = 0;
  sigwait(&end, &signal);
  std::printf("%llu\n", state == "baseline" ? 0ULL : statistics().pending + 0ULL);
  std::fflush(stdout);
  std::_Exit(0);
}
const test::RoleRegistration kRest("rest", rest);

// --- who looks at it

/// A number in one of the files that the kernel shows of a process.
std::uint64_t numberIn(const std::filesystem::path& file, const std::string& name) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + ":")) return std::stoull(line.substr(name.size() + 1));
  }
  throw std::runtime_error(file.string() + " does not say " + name);
}

struct Switches {
  std::uint64_t voluntary = 0;
  std::uint64_t forced = 0;
};
using SwitchesByThread = std::map<std::string, Switches>;

/// A thread that has come or gone meanwhile counts as a wake-up, as its own number is not the
/// whole.
Switches between(const SwitchesByThread& before, const SwitchesByThread& after) {
  Switches sum;
  for (const auto& [thread, now] : after) {
    const auto earlier = before.find(thread);
    const Switches start = earlier == before.end() ? Switches() : earlier->second;
    sum.voluntary += now.voluntary - start.voluntary + (earlier == before.end());
    sum.forced += now.forced - start.forced;
  }
  for (const auto& [thread, start] : before) sum.voluntary += after.count(thread) == 0;
  return sum;
}

class RestingProcess {
 public:
  RestingProcess(const std::string& state, const std::string& url, const std::string& directory)
      : _process("rest", {state, url, directory}) {
    _place = "/proc/" + _process.readLine();
    if (_process.readLine() != kReady) throw std::runtime_error("no process came to " + state);
  }

  /// The threads that take additions and changes of the network end when none has come for two
  /// seconds.
  void awaitRest() const {
    await("a thread does not end", [this] {
      const std::vector<std::string> names = threads();
      return std::none_of(names.begin(), names.end(), [](std::string_view name) {
        return name == "orbiqRequestHan" || name == "com.vorlune.rea" || name == "orbiqResolver";
      });
    });
  }
  std::size_t ownThreads() const { return threads().size() - 1; }
  /// Rss, as Pss depends on how many neighbours map the same files.
  double residentKiB() const {
    return static_cast<double>(numberIn(_place / "smaps_rollup", "Rss"));
  }
  SwitchesByThread switches() const {
    SwitchesByThread all;
    for (const auto& task : std::filesystem::directory_iterator(_place / "task")) {
      all[task.path().filename()] = {
          numberIn(task.path() / "status", "voluntary_ctxt_switches"),
          numberIn(task.path() / "status", "nonvoluntary_ctxt_switches")};
    }
    return all;
  }
  /// How many hits wait. Ends the process.
  std::size_t pendingAtEnd() {
    _process.kill(SIGTERM);
    const std::string line = _process.readLine();
    if (line.empty() || _process.wait() != 0) throw std::runtime_error("a process did not last");
    return std::stoul(line);
  }

 private:
  std::vector<std::string> threads() const {
    std::vector<std::string> names;
    for (const auto& task : std::filesystem::directory_iterator(_place / "task")) {
      std::string name;
      std::getline(std::ifstream(task.path() / "comm"), name);
      names.push_back(name);
    }
    return names;
  }

  test::RoleProcess _process;
  std::filesystem::path _place;
};

struct State {
  const char* name;
  const char* text;
  std::size_t pending;  ///< hits that it must hold
  std::vector<double> wakeups = {}, forced = {}, threads = {}, kibibytes = {};
};

/// All processes at once, so that they are watched for the same ten seconds.
void watch(std::vector<State>& states, const std::string& directory) {
  std::string hits;
  const test::ScriptedServer server([&hits](const std::string& head) {
    const bool asksForAccess = test::requestTarget(head).starts_with("/auth/");
    return test::answer(200, asksForAccess ? "access=full|host=" + hits + "|cmsVI=7" : "");
  });
  hits = server.url("/hit/");
  const test::ScriptedServer silent(std::vector<test::Script>{});
  std::vector<std::unique_ptr<RestingProcess>> processes;
  for (std::size_t run = 0; run < kRuns; ++run) {
    for (const State& state : states) {
      const std::string place = directory + "/" + state.name + std::to_string(run);
      const bool isAnswered = std::string(state.name) != "unanswered";
      processes.push_back(std::make_unique<RestingProcess>(
          state.name, (isAnswered ? server : silent).url("/auth/"), place));
    }
  }
  for (const auto& process : processes) process->awaitRest();
  std::vector<SwitchesByThread> before;
  for (const auto& process : processes) before.push_back(process->switches());
  std::this_thread::sleep_for(kWatched);
  for (std::size_t i = 0; i < processes.size(); ++i) {
    State& state = states[i % states.size()];
    const Switches switches = between(before[i], processes[i]->switches());
    state.wakeups.push_back(static_cast<double>(switches.voluntary));
    state.forced.push_back(static_cast<double>(switches.forced));
    state.threads.push_back(static_cast<double>(processes[i]->ownThreads()));
    state.kibibytes.push_back(processes[i]->residentKiB());
    if (processes[i]->pendingAtEnd() != state.pending) {
      throw std::runtime_error(std::string("not the hits that should wait: ") + state.text);
    }
  }
}

/// For each run, what there is more of it in one state than in the other, for each of so many.
std::vector<double> more(const State& state, const State& than, double count) {
  std::vector<double> differences;
  for (std::size_t run = 0; run < kRuns; ++run) {
    differences.push_back((state.kibibytes[run] - than.kibibytes[run]) / count);
  }
  return differences;
}

void measure(const std::string& directory) {
  std::vector<State> states{{"baseline", "one libcurl request, without the library", 0},
                            {"empty", "empty queue", 0},
                            {"offline", "a hit without network", 1},
                            {"unanswered", "a hit without authorization", 1},
                            {"full", "full queue without network", kFullQueue},
                            {"drained", "queue was full", 0},
                            {"taggers", "1,000 taggers", 0}};
  watch(states, directory);
  std::printf("at rest for %d s; the worst of %zu processes, memory: medians\n",
              static_cast<int>(kWatched.count()), kRuns);
  for (const State& state : states) {
    if (&state == &states.front()) continue;
    const auto reportWorst = [&](const std::string& what, const std::vector<double>& samples,
                                 const char* unit, double aim) {
      const double worst = quantile(samples, 1);
      report({"at rest", std::string(state.text) + ", " + what, worst, unit,
              Aim{Aim::Kind::kAtMost, aim}, quantile(samples, 0), worst});
    };
    reportWorst("voluntary switches in 10 s", state.wakeups, "wake-ups", 0);
    reportWorst("forced switches in 10 s", state.forced, "switches", 0);
    reportWorst("threads", state.threads, "threads", 2);
  }
  const State &baseline = states[0], &empty = states[1], &offline = states[2], &full = states[4],
              &drained = states[5], &taggers = states[6];
  reportSamples("at rest", "memory above one libcurl request's", more(empty, baseline, 1), "KiB",
                Aim{Aim::Kind::kAtMost, 1024});
  reportSamples("at rest", "memory for each request of a full queue",
                more(full, offline, static_cast<double>(kFullQueue - 1)), "KiB",
                Aim{Aim::Kind::kAtMost, 1});
  reportSamples("at rest", "memory that a full queue leaves behind", more(drained, empty, 1),
                "KiB");
  reportSamples("at rest", "memory for each tagger",
                more(taggers, empty, static_cast<double>(kManyTaggers)), "KiB");
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
