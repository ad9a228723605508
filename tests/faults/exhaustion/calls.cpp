// Calls each function of the library once while something runs out, and again when it is back.
//
//   calls DIRECTORY KIND STEP
//
// Each trial is a process of its own, and every STEPth moment is tried. Prints what failed and how
// much was tried; exits 0 if all is well.
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "orbiq/orbiq.h"
#include "orbiq/orbiq_c.h"
#include "tests/faults/exhaustion/Faults.h"

namespace {

using orbiq::HostApplication;
using orbiq::MainLoop;
using orbiq::NotificationCenter;

// Plain values, which the application makes itself.
const std::string kName = "tv.example.player.notification";
const std::string kLongText(100, 'x');
const orbiq::String kSerial("http://127.0.0.1:9/a-serial-that-is-longer-than-a-small-text");
orbiq::HostDescription host{.bundleIdentifier = "tv.example.player",
                            .authorizationServer = "http://127.0.0.1:9/auth/"};
int ends[2];  // two that can be read

struct Receiver {
  void tick(orbiqTimer& timer) {
    timer.invalidate();
    ticked.set_value();
  }
  std::promise<void> ticked;
};
const auto receiver = std::make_shared<Receiver>();
const auto late = std::make_shared<Receiver>();
std::promise<void> promises[2][3];
int lines = 0;
const orbiq::LogSink sink = [text = kLongText](const auto&) { ++lines; };
orbiq::LogSink sinks[] = {sink, sink};

/// What is waited for hangs, if it does not come.
void await(std::promise<void>& promise) { promise.get_future().wait(); }

/// Returns whether all is as it should be. While something is missing (`!isWhole`) the call need
/// not do what it is for, but has to return.
using Call = bool (*)(bool isWhole);

/// What was accepted while something was missing has to come as well, with the next use.
bool loopCalls(bool isWhole) {
  static bool isAccepted[2][3];
  MainLoop& loop = MainLoop::mainLoop();
  auto& done = promises[isWhole];
  auto& accepted = isAccepted[isWhole];
  const int descriptor = ends[isWhole];
  accepted[0] = loop.addTimer({}, false, [&done] { done[0].set_value(); }) != 0;
  accepted[1] = loop.watch(descriptor, [&done, descriptor] {
    MainLoop::mainLoop().unwatch(descriptor);
    done[1].set_value();
  });
  accepted[2] = loop.post([&done] { done[2].set_value(); });
  if (!isWhole) return true;
  for (const int i : {0, 1, 2}) {
    if (!accepted[i]) return false;
    await(done[i]);
    if (isAccepted[0][i]) await(promises[0][i]);
  }
  loop.stop();
  loop.run();
  return loop.adopt() >= 0;
}

bool timers(bool isWhole) {
  static std::shared_ptr<orbiqTimer> timer;
  if (!isWhole) {
    timer = orbiqTimer::orbiqTimerWithInterval_withTarget_selector_repeating(0, receiver,
                                                                             &Receiver::tick, true);
    return true;
  }
  const auto second = orbiqTimer::orbiqTimerWithInterval_withTarget_selector_repeating(
      0, late, &Receiver::tick, true);
  if (!second) return false;
  await(late->ticked);
  if (timer) await(receiver->ticked);
  while ((timer && timer.use_count() > 1) || second.use_count() > 1) usleep(100);
  return true;
}

bool notifications(bool isWhole) {
  static int told = 0;
  NotificationCenter& center = NotificationCenter::defaultCenter();
  const bool isAdded = center.addObserver(&told, kName, [](const auto&) { ++told; });
  told = 0;
  center.postNotificationName(kName);
  center.removeObserver(&told, kName);
  return !isWhole || (isAdded && told == 1);
}

bool logging(bool isWhole) {
  lines = 0;
  orbiq::SystemLog::setSink(std::move(sinks[isWhole]));
  orbiqLogger::log_withMode(kSerial, orbiq::LoggingModeError);
  orbiq::SystemLog::setSink({});
  orbiqLogger::log_withMode(kSerial, orbiq::LoggingModeError);
  return !isWhole || lines == 1;
}

bool identifier(bool isWhole) {
  static orbiq::String given;
  if (!isWhole) {
    orbiqKWDXUUIDHandler::generateUUID();
    given = orbiqKWDXUUIDHandler::UUID();
    orbiqKWDXUUIDHandler::storeUUID(false);  // where there is none
    return true;
  }
  const orbiq::String kept = orbiqKWDXUUIDHandler::UUID();
  if (kept.isNull() || !(given.isNull() || given == kept)) return false;
  orbiqKWDXUUIDHandler::reset();
  return !orbiqKWDXUUIDHandler::storeUUID(false).isNull() &&
         !orbiqKWDXUUIDHandler::storeUUID(true).isNull();
}

/// Where a description failed for want of memory there must be no identifier in another place.
bool descriptions(bool isWhole) {
  const bool isAccepted = HostApplication::describe(host).isNull();
  HostApplication::authorizationServerProblem();
  if (!isWhole) return isAccepted == !HostApplication::wasOnlyRefused();
  return isAccepted && HostApplication::current().bundleIdentifier == host.bundleIdentifier;
}

bool settled(bool isWhole) {
  HostApplication::settle();
  return !isWhole || !HostApplication::describe(host).isNull();
}

bool agent(bool isWhole) {
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  orbiqAudienceTagger unknown;
  unknown.sendHit();
  unknown.setNewLevel1(kSerial);
  unknown.setLoggingMode(orbiq::LoggingModeError);
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
  if (tagger) tagger->sendHit();
  orbiq_post_will_enter_foreground();
  agent.getPartialID();
  agent.screenDiagonal();
  return !isWhole || tagger;
}

bool monitors(bool isWhole) {
  const auto monitor = orbiqReachability::reachabilityForInternetConnection();
  if (!monitor) return !isWhole;
  const bool isStarted = monitor->startNotifier();
  monitor->isReachable();
  monitor->setReachabilityRef(monitor->reachabilityRef());
  monitor->reachabilityChanged(monitor->reachabilityFlags());
  monitor->currentReachabilityString();
  monitor->currentReachabilityFlags();
  static_cast<void>(monitor->description());
  monitor->stopNotifier();
  orbiqReachability::reachabilityWithHostname(kSerial);
  return isStarted || !isWhole;
}

bool plainC(bool isWhole) {
  char reason[64] = "never written";
  char buffer[64] = "never written";
  orbiq_tagger* tagger = nullptr;
  orbiq_statistics counts;
  int descriptor = -1;
  orbiq_host* const described = orbiq_host_new();
  if (described == nullptr) return !isWhole;
  bool isDone = orbiq_host_set_text(described, ORBIQ_AUTHORIZATION_SERVER,
                                    "http://127.0.0.1:9/auth/") == ORBIQ_OK;
  const orbiq_status status = orbiq_host_describe(described, reason, sizeof reason);
  orbiq_host_free(described);
  if (std::string_view(reason) == "never written" || (status != ORBIQ_OK) == (*reason == '\0')) {
    return false;
  }
  if (!isWhole && status != ORBIQ_OK) return true;  // there is no keychain, then
  isDone &= orbiq_device_identifier(buffer, sizeof buffer, nullptr) == ORBIQ_OK;
  isDone &= orbiq_tagger_with_serial(kSerial.view().data(), &tagger) == ORBIQ_OK;
  isDone &= orbiq_tagger_send_hit(tagger) == ORBIQ_OK;
  isDone &= orbiq_tagger_set_text(tagger, ORBIQ_NEW_LEVEL_1, kLongText.c_str()) == ORBIQ_OK;
  isDone &= orbiq_get_statistics(&counts, sizeof counts) == ORBIQ_OK;
  isDone &= orbiq_post_will_enter_foreground() == ORBIQ_OK;
  isDone &= orbiq_main_loop_adopt(&descriptor) == ORBIQ_OK;
  return isDone || !isWhole;
}

constexpr struct {
  const char* name;
  Call call;
} kCalls[] = {
    {"loop", loopCalls}, {"timer", timers},          {"notifications", notifications},
    {"log", logging},    {"identifier", identifier}, {"description", descriptions},
    {"settle", settled}, {"agent", agent},           {"monitor", monitors},
    {"C", plainC},
};

/// In a process of its own, as what is made at the first use is made once. Exits 0 if all is well,
/// 1 if so, but no moment of that number came.
[[noreturn]] void attempt(const char* name, Call call, faults::Kind kind, std::uint64_t first,
                          std::uint64_t count) {
  const char* problem = nullptr;
  bool isTouched = false;
  alarm(20);
  try {
    faults::arm(kind, first, count);
    const bool isRight = call(false);
    isTouched = faults::disarm() >= first;
    if (!isRight) problem = "went wrong";
    if (problem == nullptr && !call(true)) problem = "does not work again";
  } catch (const std::exception&) {
    faults::disarm();
    problem = "threw an exception";
  }
  if (problem != nullptr) {
    std::printf("%s: moment %llu, %llu in a row: %s\n", name,
                static_cast<unsigned long long>(first), static_cast<unsigned long long>(count),
                problem);
    std::fflush(stdout);
    _exit(2);
  }
  _exit(isTouched ? 0 : 1);
}

/// Since 3.5 it does that to a process whose thread finds no memory for its first use of it.
bool isEndedByOpenSsl(const std::string& said) {
  std::ifstream file(said);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  return text.find("OpenSSL internal error") != text.npos;
}

/// Tries each moment, or each of so many. Returns how many failed.
int sweep(const char* name, Call call, faults::Kind kind, unsigned step, const std::string& place) {
  static int trials = 0;
  int failures = 0;
  int moments = 0;
  for (int outcome = 0; outcome != 1; ++moments) {
    const std::string directory = place + "/" + std::to_string(++trials);
    const auto first = static_cast<std::uint64_t>(moments) * step + 1;
    const pid_t child = fork();
    const std::string said = directory + ".log";
    if (child == 0) {
      setenv("ORBIQ_LIBRARY_DIRECTORY", directory.c_str(), 1);
      dup2(open(said.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
      attempt(name, call, kind, first, moments % 2 == 0 ? 1 : 8);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
      if (isEndedByOpenSsl(said)) continue;
      std::printf("%s: moment %llu: signal %d\n", name, static_cast<unsigned long long>(first),
                  WTERMSIG(status));
    }
    outcome = WIFEXITED(status) ? WEXITSTATUS(status) : 2;
    if (outcome > 1) ++failures;
  }
  std::printf("%s: %d tried\n", name, moments - 1);
  std::fflush(stdout);
  return failures;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 2;
  for (const int end : ends) {
    if (write(end, "x", 1) != 1) return 2;
  }
  // Before: without memory for its start, OpenSSL 3.5 waits for itself for ever.
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return 2;
  const std::string kind = argv[2];
  const auto step = static_cast<unsigned>(std::stoul(argv[3]));
  int failures = 0;
  for (const auto& [name, call] : kCalls) {
    failures += sweep(name, call, faults::kindOf(kind), step, argv[1]);
  }
  return failures == 0 ? 0 : 1;
}
