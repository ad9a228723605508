// Does one thing with the library while something runs out, and again when it is back.
//
//   program CALL DIRECTORY SERVER SERIAL KIND FIRST COUNT
//
// Exits 0 if all is well, and prints how often the thing was asked for. Without arguments it prints
// what it can do.
#include <curl/curl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "orbiq/orbiq.h"
#include "orbiq/orbiq_c.h"
#include "orbiq/private/orbiqAgent/HandlerWork.h"
#include "orbiq/services/platform/host/Platform.h"
#include "tests/faults/exhaustion/Faults.h"
#include "tests/support/ManualClock.h"

namespace {

using namespace std::chrono_literals;
using orbiq::HostApplication;
using orbiq::MainLoop;
using orbiq::NotificationCenter;

// Plain values, which the application makes itself.
const std::string kName = "tv.example.player.notification";
const std::string kLongText(100, 'x');
const orbiq::String kSerial("http://127.0.0.1:9/a-serial-that-is-longer-than-a-small-text");
const auto theClock = std::make_shared<orbiq::test::ManualClock>();
orbiq::HostDescription host{.bundleIdentifier = "tv.example.player",
                            .bundleName = "Player",
                            .shortVersion = "4.2",
                            .advertisingIdentifier = [] { return orbiq::String("device"); }};
orbiq::String firstAccount;
orbiq::String secondAccount;
int ends[2];  // two that can be read
faults::Kind lacking;
/// More than the library's threads have for themselves. The C library takes it from each stack.
thread_local char ofEachThread[600'000];

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
/// Uses the loop when it ends, wherever that is.
struct LateUser {
  LateUser() = default;
  LateUser(const LateUser&) = delete;
  LateUser& operator=(const LateUser&) = delete;
  ~LateUser() { MainLoop::mainLoop().removeTimer(0); }
};
std::function<void()> posted[] = {
    [user = std::make_shared<LateUser>()] { promises[0][2].set_value(); },
    [user = std::make_shared<LateUser>()] { promises[1][2].set_value(); }};
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
  // Without descriptors the loop's thread is there, and tries by itself.
  if (isWhole && lacking == faults::Kind::Descriptors && std::exchange(isAccepted[0][1], false)) {
    await(promises[0][1]);
  }
  const int descriptor = ends[isWhole];
  accepted[0] = loop.addTimer({}, false, [&done] { done[0].set_value(); }) != 0;
  accepted[1] = loop.watch(descriptor, [&done, descriptor] {
    MainLoop::mainLoop().unwatch(descriptor);
    done[1].set_value();
  });
  accepted[2] = loop.post(std::move(posted[isWhole]));
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

/// Nobody tells when nothing more will happen.
bool comesToRest(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    const orbiq::Statistics now = orbiqAgent::sharedAgent().statistics();
    if (now.accepted > 0 && now.pending == 0) return true;
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
}

void enterForeground() {
  static const std::string name = orbiq::UIApplicationWillEnterForegroundNotification;
  NotificationCenter::defaultCenter().postNotificationName(name);
}

/// A small application: two hits of one account, and later one of another.
bool application(bool isWhole) {
  static std::uint64_t hits = 0;
  static bool isDescribed = false;
  const auto sendHit = [](const orbiq::String& serial) {
    const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(serial);
    if (!tagger) return false;
    tagger->sendHit();
    ++hits;
    return true;
  };
  if (!isDescribed) isDescribed = HostApplication::describe(host).isNull();
  if (!isWhole) {
    if (!isDescribed) return true;
    sendHit(firstAccount);
    sendHit(firstAccount);
    enterForeground();
    comesToRest(150ms);
    return true;
  }
  theClock->advance(61);
  enterForeground();
  if (!isDescribed || !sendHit(secondAccount) || !comesToRest(20s)) return false;
  theClock->advance(61);
  enterForeground();
  const orbiq::Statistics all = orbiqAgent::sharedAgent().statistics();
  return all.accepted == hits && all.sent > 0;
}

/// Of a server with a name, whose look-up takes a thread. What is lacking here is told as such: it
/// says nothing of the server.
bool transfer(bool isWhole) {
  static std::unique_ptr<orbiq::HttpClient> client;
  try {
    if (!client) client = orbiq::makeHttpClient("");
    std::string url = host.authorizationServer.toStdString();
    url.replace(url.find("127.0.0.1"), 9, "collector.test");
    const orbiq::HttpResult result = client->send({*orbiq::Url::fromText(url + "S"), {}});
    // A look-up without memory keeps the cause to itself.
    const bool isSilent = result.error && lacking == faults::Kind::Memory &&
                          result.error->code == CURLE_COULDNT_RESOLVE_HOST;
    return result.data || (!isWhole && (isSilent || result.error->isExhaustion));
  } catch (const std::bad_alloc&) {
    return !isWhole;
  }
}

orbiq::HandlerWork work;
/// Without memory, what wakes the sending loop waits for the next who takes.
bool triggers(bool isWhole) {
  if (!isWhole) {
    work.give({.trigger = orbiq::Trigger::NetworkReturn});
    work.give({.trigger = orbiq::Trigger::Foreground});
    return true;
  }
  bool isThere = false;
  while (const auto taken = work.take()) isThere |= taken->trigger == orbiq::Trigger::NetworkReturn;
  return isThere;
}

constexpr struct {
  const char* name;
  Call call;
} kCalls[] = {
    {"application", application},
    {"transfer", transfer},
    {"triggers", triggers},
    {"loop", loopCalls},
    {"timer", timers},
    {"log", logging},
    {"identifier", identifier},
    {"notifications", notifications},
    {"description", descriptions},
    {"agent", agent},
    {"monitor", monitors},
    {"C", plainC},
};

/// Without memory for its first look-up, the C library ends the process.
void lookUp() {
  addrinfo* found = nullptr;
  if (getaddrinfo("localhost", nullptr, nullptr, &found) == 0) freeaddrinfo(found);
}

/// Without memory for its start, OpenSSL 3.5 waits for itself for ever.
bool mayStartWithoutMemory() {
  const std::string_view openSsl = curl_version_info(CURLVERSION_NOW)->ssl_version;
  return openSsl.starts_with("OpenSSL/3.0");
}

/// The problem, or null.
const char* attempt(Call call, char** arguments) try {
  lacking = faults::kindOf(arguments[0]);
  faults::arm(lacking, std::stoull(arguments[1]), std::stoull(arguments[2]));
  const bool isRight = call(false);
  const std::uint64_t asked = faults::disarm();
  if (!isRight) return "went wrong";
  if (!call(true)) return "does not work again";
  std::printf("%llu\n", static_cast<unsigned long long>(asked));
  return nullptr;
} catch (const std::exception&) {
  faults::disarm();
  return "threw an exception";
}

}  // namespace

int main(int argc, char** argv) {
  for (const auto& [name, call] : kCalls) {
    if (argc == 1) std::puts(name);
    if (argc != 8 || std::string_view(name) != argv[1]) continue;
    ofEachThread[0] = 'x';
    setenv("ORBIQ_LIBRARY_DIRECTORY", argv[2], 1);
    firstAccount = std::string("A") + argv[4];
    secondAccount = std::string("B") + argv[4];
    orbiq::Platform::install({.clock = theClock});
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 2;
    for (const int end : ends) {
      if (write(end, "x", 1) != 1) return 2;
    }
    host.authorizationServer = argv[3];
    if (call == application) {
      enterForeground();
      orbiqLogger::sharedLogger().setLoggingMode(orbiq::LoggingModeInfo);
    }
    lookUp();
    const bool startsByItself = call == application && mayStartWithoutMemory();
    if (!startsByItself && !orbiq::prepareHttpForProcess()) return 2;
    const char* const problem = attempt(call, argv + 5);
    if (problem != nullptr) std::puts(problem);
    std::fflush(stdout);
    _exit(problem == nullptr ? 0 : 1);
  }
  return argc == 1 ? 0 : 2;
}
