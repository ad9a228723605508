// Work whose instructions are counted: run by instructions.py under valgrind's callgrind, which
// counts between `begin` and `end`, on the thread that calls them, in user space alone.
#include <valgrind/callgrind.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "bench/Surroundings.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqAuthManager/AuthAnswer.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/log/SystemLog.h"
#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace {

thread_local bool countsAllocations = false;
thread_local std::size_t allocations = 0;

}  // namespace

void* operator new(std::size_t size) {
  if (countsAllocations) ++allocations;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace orbiq::bench {
namespace {

namespace steps = test::steps;

constexpr const char* kSerial = "241041208600";

void begin() {
  countsAllocations = true;
  CALLGRIND_TOGGLE_COLLECT;
}
void end() {
  CALLGRIND_TOGGLE_COLLECT;
  countsAllocations = false;
}

/// `sendHit` while the server stalls.
int sendHit(const std::vector<std::string>& arguments) {
  constexpr int kCalls = 200;
  test::ScriptedServer server(
      std::vector<test::Script>{{steps::readRequest(), steps::untilPeerCloses()}});
  describeApplication(server.url("/auth/"), arguments.at(0));
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(kSerial);
  tagger->sendHit();
  if (!server.waitForRequests(1)) return 1;
  // The thread of the additions takes one and then waits for the stalled send: from here on no call
  // finds it asleep in one run and awake in another.
  std::promise<void> taken;
  SystemLog::setSink([&taken](const LogLine& line) {
    if (line.text.ends_with("Adding a request in queue")) taken.set_value();
  });
  tagger->setLoggingMode(LoggingModeInfo);
  tagger->sendHit();
  taken.get_future().wait();
  tagger->setLoggingMode(LoggingModeError);

  for (int call = 0; call < kCalls; ++call) tagger->sendHit();
  begin();
  for (int call = 0; call < kCalls; ++call) tagger->sendHit();
  end();
  // Ends here, as `taken` must outlive the last line of the log.
  std::fflush(nullptr);
  std::_Exit(0);
}

/// Every date has the same digits, in every run.
class EvenClock final : public Clock {
 public:
  Date now() const override { return Date::sinceReferenceDate(8e8); }
};

std::shared_ptr<orbiqRequest> request(int number) {
  static const String serial = kSerial;
  static const auto tagger = std::make_shared<orbiqTaggerID>(serial, 3, true);
  static const auto auth = orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
      orbiqSession::orbiqSessionWithSerial_withCmsVI(serial, "2817404411"),
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
          serial, AccessModeFull, "https://hits.example/audience/collect/"),
      false);
  auto made = std::make_shared<orbiqRequest>(
      std::make_shared<const Parameters>(
          Parameters{{"serial", serial},
                     {"tn", "on-ios"},
                     {"v", "1.0"},
                     {"n", std::to_string(100'000'000 + number * 104'729)},
                     {"cmsPS", "2"},
                     {"cmsRK", std::to_string(number)},
                     {"did", "6D92078A-8246-4BA4-AE5B-" + std::to_string(number)}}),
      RequestTypeStreaming, SendingModeHost, serial, tagger);
  made->setAuth(auth->copy());
  return made;
}

/// Saves of 100 requests, after a removal and after an addition, the file's calls included. Fails
/// if they allocate anything for the requests that stay.
int save(const std::vector<std::string>& arguments) {
  constexpr int kDepth = 100;
  constexpr int kPairs = 20;
  constexpr std::size_t kMostAllocations = 4;  // of a save
  if (!Platform::install({.clock = std::make_shared<EvenClock>()}).isNull()) return 1;
  const std::string path = arguments.at(0) + "/requests.ser";
  RequestsFile file(path);
  RequestQueue queue;
  int number = 0;
  while (number < kDepth) queue.push_back(request(++number));
  for (int pair = 0; pair < 2 * kPairs; ++pair) {
    const bool isCounted = pair >= kPairs;
    queue.pop_front();
    if (isCounted) begin();
    file.removed(0);
    file.save(queue);
    if (isCounted) end();
    queue.push_back(request(++number));
    if (isCounted) begin();
    file.added(queue.back());
    file.save(queue);
    if (isCounted) end();
  }
  if (allocations > kMostAllocations * 2 * kPairs) {
    std::cerr << allocations << " allocations for " << 2 * kPairs << " saves\n";
    return 1;
  }
  return file.load().size() == kDepth ? 0 : 1;
}

/// From the text of an authorization server's answer to the session and the access.
int authorize(const std::vector<std::string>& /*arguments*/) {
  constexpr std::size_t kAnswers = 200;
  const std::string answer =
      "access=full|host=https://hits.example/audience/collect/|cmsVI=2817404411";
  const String serial = kSerial;
  std::vector<std::shared_ptr<orbiqAuth>> read;
  read.reserve(2 * kAnswers);
  for (std::size_t i = 0; i < 2 * kAnswers; ++i) {
    if (i == kAnswers) begin();
    const AuthFields fields = parseAuthAnswer(answer);
    read.push_back(orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
        orbiqSession::orbiqSessionWithSerial_withCmsVI(serial, fields.at("cmsVI")),
        orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
            serial, orbiqAuthManager::accessModeFromString(fields.at("access")), fields.at("host")),
        false));
  }
  end();
  return read.back()->currentAccess()->host().view() ==
                 "https://hits.example/audience/collect/241041208600"
             ? 0
             : 1;
}

/// Prints what built this, and for what.
int build(const std::vector<std::string>& /*arguments*/) {
  std::printf("%s\n%s\n", ORBIQ_COMPILER, ORBIQ_ARCHITECTURE);
  return 0;
}

const test::RoleRegistration kBuild("build", build);
const test::RoleRegistration kSendHit("sendHit", sendHit);
const test::RoleRegistration kSave("save", save);
const test::RoleRegistration kAuthorize("authorize", authorize);

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) try {
  if (argc > 2 && std::string(argv[1]) == "--role") {
    return orbiq::test::runRole(argv[2], {argv + 3, argv + argc});
  }
  std::cerr << "instructions.py runs this in a role\n";
  return 2;
} catch (const std::exception& error) {
  std::cerr << "cannot be counted: " << error.what() << "\n";
  return 1;
}
