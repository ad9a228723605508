// kill -9 at random moments, while requests are added and sent.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "orbiq/services/platform/files/AtomicFile.h"
#include "tests/support/Application.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Torture.h"

namespace orbiq::test {
namespace {

/// What the process that is going to be killed has come to; shared with it.
struct Progress {
  std::atomic<std::uint64_t> added{0};           ///< last request that was handed over
  std::atomic<std::uint64_t> additionsSaved{0};  ///< so many additions have been saved
  std::atomic<std::uint64_t> removalsSaved{0};   ///< so many sent requests have been removed
};

Progress& progressIn(const std::string& file) {
  const int descriptor = open(file.c_str(), O_RDWR | O_CREAT, 0600);
  if (ftruncate(descriptor, sizeof(Progress)) != 0) std::abort();
  void* const shared =
      mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  close(descriptor);
  return *static_cast<Progress*>(shared);
}

/// Each addition and each removal ends in one line, on the thread that made it and before it lets
/// go of the queue.
void countSaves(Progress& progress, const LogLine& line) {
  static std::atomic<bool> removesRequest{false};
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  const bool isSender = std::string_view(name) == "orbiqRequestSen";
  if (line.text.find("handling done") != line.text.npos) removesRequest = true;
  if (line.text.find("We have now") == line.text.npos) return;
  if (!isSender) ++progress.additionsSaved;
  if (isSender && removesRequest.exchange(false)) ++progress.removalsSaved;
}

/// Requests from number `first` on, one after the other, until the end.
int addUntilKilled(const std::vector<std::string>& arguments) {
  Progress& progress = progressIn(arguments.at(2));
  Application application(arguments.at(0), [&](HostDescription& host, Platform& platform) {
    host.libraryDirectory = arguments.at(1);
    host.logSink = [&progress](const LogLine& line) { countSaves(progress, line); };
    platform.clock = {};
  });
  const auto tagger = std::make_shared<orbiqTaggerID>("ABC", 1, true);
  std::mt19937 random(static_cast<std::uint32_t>(std::stoul(arguments.at(4))));
  for (std::uint64_t number = std::stoull(arguments.at(3));; ++number) {
    progress.added = number;
    orbiqAgent::sharedAgent().addRequestToQueue(std::make_shared<orbiqRequest>(
        std::make_shared<Parameters>(Parameters{{"number", std::to_string(number)}}),
        RequestTypeStreaming, SendingModeHost, "ABC", tagger));
    while (orbiqAgent::sharedAgent().statistics().pending > 100) std::this_thread::yield();
    for (auto spins = random() % 200; spins > 0; --spins) std::this_thread::yield();
  }
}
const RoleRegistration kAdd("add-until-killed", addUntilKilled);

/// The numbers of the requests in the file; fails if it is there and does not open.
std::vector<std::uint64_t> savedNumbers(const std::string& path) {
  constexpr const ArchivedClass* kClasses[] = {&orbiqRequest::kArchivedClass,
                                               &orbiqClearCache::kArchivedClass};
  static bool wasThere = false;
  const auto bytes = readFile(path, 1U << 26U);
  EXPECT_TRUE(bytes || !wasThere) << "the file has gone";
  wasThere = bytes.has_value();
  if (!bytes) return {};  // killed before the first save
  const auto requests = KeyedUnarchiver::unarchiveArray(*bytes, kClasses);
  EXPECT_TRUE(requests) << "the file does not open";
  std::vector<std::uint64_t> numbers;
  for (const auto& saved : requests.value_or(std::vector<std::shared_ptr<Archivable>>{})) {
    const auto request = std::static_pointer_cast<orbiqRequest>(saved);
    if (!request->parameters()) continue;  // the marker
    numbers.push_back(std::stoull(request->parameters()->at("number").toStdString()));
  }
  return numbers;
}

TEST(Kill, LeavesAQueueThatWasThere) {
  AccountServer server;
  const TemporaryDirectory directory;
  const std::string library = directory.path() / "library";
  std::mt19937 random = seededRandom();
  std::vector<std::uint64_t> queued;  // as the file had it
  std::uint64_t next = 1;
  for (std::size_t round = 0; round < tortured(60, 1000); ++round) {
    const std::string shared = directory.path() / ("progress" + std::to_string(round));
    Progress& progress = progressIn(shared);
    const std::size_t hitsBefore = server.requestLines("/hit/").size();
    {
      RoleProcess process("add-until-killed", {server.authorizationServer(), library, shared,
                                               std::to_string(next), std::to_string(random())});
      const std::uint64_t additions = random() % 40;
      while (progress.additionsSaved < additions) std::this_thread::yield();
      for (auto spins = random() % 300; spins > 0; --spins) std::this_thread::yield();
      process.kill(SIGKILL);
      ASSERT_EQ(process.wait(), 128 + SIGKILL);
    }
    const std::size_t hits = server.requestLines("/hit/").size() - hitsBefore;
    const std::vector<std::uint64_t> numbers = savedNumbers(library + "/orbiqCache/requests.ser");

    // In the order of their addition: those left over from before, then those of this process.
    std::vector<std::uint64_t> all = queued;
    for (std::uint64_t number = next; number <= progress.added; ++number) all.push_back(number);
    const std::uint64_t present = queued.size() + progress.additionsSaved;  // at least
    std::size_t removed = std::min(hits, all.size());
    if (!numbers.empty()) {
      const auto first = std::find(all.begin(), all.end(), numbers.front());
      removed = static_cast<std::size_t>(first - all.begin());
      ASSERT_LE(numbers.size(), all.size() - removed) << "in round " << round;
      ASSERT_TRUE(std::equal(numbers.begin(), numbers.end(), first)) << "in round " << round;
    }
    ASSERT_GE(removed + numbers.size(), present) << "a saved addition is missing in " << round;
    ASSERT_GE(removed, progress.removalsSaved) << "a saved removal came back in " << round;
    ASSERT_LE(removed, hits) << "a request went that was not sent in " << round;
    queued = numbers;
    next = std::max<std::uint64_t>(next, progress.added + 1);  // it may not have come to any
    munmap(&progress, sizeof progress);
  }
}

}  // namespace
}  // namespace orbiq::test
