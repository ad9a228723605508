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

#include "bench/Requests.h"
#include "bench/Surroundings.h"
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

/// Saves of 100 requests, after a removal and after an addition, the file's calls included. Fails
/// if they allocate anything for the requests that stay.
int save(const std::vector<std::string>& arguments) {
  constexpr std::size_t kDepth = 100;
  constexpr int kPairs = 20;
  constexpr std::size_t kMostAllocations = 4;  // of a save
  if (!Platform::install({.clock = std::make_shared<EvenClock>()}).isNull()) return 1;
  const std::string path = arguments.at(0) + "/requests.ser";
  RequestsFile file(path);
  RequestQueue queue;
  Requests requests;
  while (queue.size() < kDepth) queue.push_back(requests.next());
  for (int pair = 0; pair < 2 * kPairs; ++pair) {
    const bool isCounted = pair >= kPairs;
    queue.pop_front();
    if (isCounted) begin();
    file.removed(0);
    file.save(queue);
    if (isCounted) end();
    queue.push_back(requests.next());
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

/// Prints what built this, and for what.
int build(const std::vector<std::string>& /*arguments*/) {
  std::printf("%s\n%s\n", ORBIQ_COMPILER, ORBIQ_ARCHITECTURE);
  return 0;
}

const test::RoleRegistration kBuild("build", build);
const test::RoleRegistration kSendHit("sendHit", sendHit);
const test::RoleRegistration kSave("save", save);

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
