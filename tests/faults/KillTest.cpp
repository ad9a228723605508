// kill -9 at random moments, while requests are added and sent.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/Application.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Torture.h"

namespace orbiq::test {
namespace {

/// Without giving way: whoever does may have to wait long on a busy machine.
void passTime(std::chrono::microseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) continue;
}

/// Tells the test that one more was "added", or that its addition or its removal was "saved" or
/// "removed". In one piece, whichever thread is killed.
void tell(std::string_view what) {
  if (write(STDOUT_FILENO, what.data(), what.size()) < 0) std::abort();
}

/// Each addition and each removal ends in one line, on the thread that made it and before it lets
/// go of the queue.
void tellOfSaves(const LogLine& line) {
  static std::atomic<bool> removesRequest{false};
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  const bool isSender = std::string_view(name) == "orbiqRequestSen";
  if (line.text.find("handling done") != line.text.npos) removesRequest = true;
  if (line.text.find("We have now") == line.text.npos) return;
  if (!isSender) tell("saved\n");
  if (isSender && removesRequest.exchange(false)) tell("removed\n");
}

/// Requests from number `first` on, one after the other, until the end.
int addUntilKilled(const std::vector<std::string>& arguments) {
  Application application(arguments.at(0), [&](HostDescription& host, Platform& platform) {
    host.libraryDirectory = arguments.at(1);
    host.logSink = tellOfSaves;
    platform.clock = {};
  });
  const auto tagger = std::make_shared<orbiqTaggerID>("ABC", 1, true);
  std::mt19937 random(static_cast<std::uint32_t>(std::stoul(arguments.at(3))));
  for (std::uint64_t number = std::stoull(arguments.at(2));; ++number) {
    tell("added\n");
    orbiqAgent::sharedAgent().addRequestToQueue(std::make_shared<orbiqRequest>(
        std::make_shared<Parameters>(Parameters{{"number", std::to_string(number)}}),
        RequestTypeStreaming, SendingModeHost, "ABC", tagger));
    while (orbiqAgent::sharedAgent().statistics().pending > 100) std::this_thread::yield();
    passTime(std::chrono::microseconds(random() % 100));
  }
}
const RoleRegistration kAdd("add-until-killed", addUntilKilled);

/// The numbers of the requests in the file.
std::vector<std::uint64_t> savedNumbers(const std::string& path) {
  std::vector<std::uint64_t> numbers;
  if (!std::filesystem::exists(path)) return numbers;  // killed before the first save
  for (const auto& request : savedRequests(path)) {
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
    const std::size_t hitsBefore = server.requestLines("/hit/").size();
    std::map<std::string, std::uint64_t> told;
    {
      RoleProcess process("add-until-killed", {server.authorizationServer(), library,
                                               std::to_string(next), std::to_string(random())});
      const auto listen = [&] {
        const std::string what = process.readLine();
        ++told[what];
        return !what.empty();
      };
      const std::uint64_t additions = random() % 40;
      while (told["saved"] < additions && listen()) continue;
      passTime(std::chrono::microseconds(random() % 300));  // to any moment of a save or a send
      process.kill(SIGKILL);
      while (listen()) continue;
      ASSERT_EQ(process.wait(), 128 + SIGKILL);
    }
    const std::size_t hits = server.requestLines("/hit/").size() - hitsBefore;
    const std::vector<std::uint64_t> numbers = savedNumbers(library + "/orbiqCache/requests.ser");

    // In the order of their addition: those left over from before, then those of this process.
    std::vector<std::uint64_t> all = queued;
    for (std::uint64_t i = 0; i < told["added"]; ++i) all.push_back(next++);
    const std::uint64_t present = queued.size() + told["saved"];  // at least
    std::size_t removed = std::min(hits, all.size());
    if (!numbers.empty()) {
      const auto first = std::find(all.begin(), all.end(), numbers.front());
      removed = static_cast<std::size_t>(first - all.begin());
      ASSERT_LE(numbers.size(), all.size() - removed) << "in round " << round;
      ASSERT_TRUE(std::equal(numbers.begin(), numbers.end(), first)) << "in round " << round;
    }
    ASSERT_GE(removed + numbers.size(), present) << "a saved addition is missing in " << round;
    ASSERT_GE(removed, told["removed"]) << "a saved removal came back in " << round;
    ASSERT_LE(removed, hits) << "a request went that was not sent in " << round;
    queued = numbers;
  }
}

}  // namespace
}  // namespace orbiq::test
