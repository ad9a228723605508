// A small application that sends two hits while something runs out, and another one when it is
// back.
//
//   application SERVER DIRECTORY SERIAL KIND FIRST COUNT
//
// Exits 0 if all is well, and prints how often the thing was asked for.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>

#include "orbiq/orbiq.h"
#include "orbiq/private/orbiqAgent/HandlerWork.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/time/Clock.h"
#include "tests/faults/exhaustion/Faults.h"

namespace {

using namespace std::chrono_literals;

class MovedClock final : public orbiq::Clock {
 public:
  orbiq::Date now() const override { return orbiq::SystemClock().now().adding(_moved); }
  void advance(double seconds) { _moved = _moved + seconds; }

 private:
  std::atomic<double> _moved{0};
};

orbiq::Statistics statistics() { return orbiqAgent::sharedAgent().statistics(); }

/// Nobody tells when nothing more will happen.
template <class Condition>
bool comesTrue(std::chrono::milliseconds patience, const Condition& condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

bool everythingIsSettled() {
  const orbiq::Statistics now = statistics();
  return now.accepted > 0 && now.pending == 0;
}

void enterForeground() {
  static const std::string name = orbiq::UIApplicationWillEnterForegroundNotification;
  orbiq::NotificationCenter::defaultCenter().postNotificationName(name);
}

/// Without memory, what wakes the sending loop has to wait only for the next who takes.
bool keepsTriggers() {
  orbiq::HandlerWork work;
  faults::arm(faults::Kind::Memory, 1, 1000);
  work.give({.trigger = orbiq::Trigger::NetworkReturn});
  work.give({.trigger = orbiq::Trigger::Foreground});
  faults::disarm();
  const auto taken = work.take();
  return taken && taken->trigger == orbiq::Trigger::NetworkReturn && !work.take();
}

int fail(const char* what) {
  std::printf("%s: %s\n", what, statistics().json().description().c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 7) return 2;
  if (!keepsTriggers()) return fail("a trigger is lost");  // while nobody else takes memory
  const auto clock = std::make_shared<MovedClock>();
  orbiq::Platform::install({.clock = clock});
  // Plain values are the application's own; what it does with them may fail.
  const orbiq::HostDescription host{
      .bundleIdentifier = "tv.example.player",
      .bundleName = "Player",
      .shortVersion = "4.2",
      .authorizationServer = std::string(argv[1]),
      .libraryDirectory = std::string(argv[2]),
      .advertisingIdentifier = [] { return orbiq::String("device"); },
  };
  const orbiq::String first(std::string("A") + argv[3]);
  const orbiq::String second(std::string("B") + argv[3]);
  enterForeground();
  orbiqLogger::sharedLogger().setLoggingMode(orbiq::LoggingModeInfo);

  faults::arm(faults::kindOf(argv[4]), std::strtoull(argv[5], nullptr, 10),
              std::strtoull(argv[6], nullptr, 10));
  bool isDescribed = orbiq::HostApplication::describe(host).isNull();
  std::uint64_t hits = 0;
  const auto sendHit = [&](const orbiq::String& serial) {
    const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(serial);
    if (!tagger) return false;
    tagger->sendHit();
    ++hits;
    return true;
  };
  if (isDescribed) {
    sendHit(first);
    sendHit(first);
    enterForeground();
    comesTrue(150ms, everythingIsSettled);
  }
  const std::uint64_t asked = faults::disarm();

  if (!isDescribed) isDescribed = orbiq::HostApplication::describe(host).isNull();
  if (!isDescribed) return fail("cannot be described any more");
  clock->advance(61);
  enterForeground();
  if (!sendHit(second)) return fail("no tagger");
  if (!comesTrue(20'000ms, everythingIsSettled)) return fail("something stays pending");
  clock->advance(61);
  enterForeground();
  const orbiq::Statistics all = statistics();
  if (all.accepted != hits) return fail("hits are not accounted for");
  if (all.sent == 0) return fail("nothing was sent");
  std::printf("%llu\n", static_cast<unsigned long long>(asked));
  return 0;
} catch (const std::exception& error) {
  std::printf("an exception came out: %s\n", error.what());
  return 1;
}
