// The agent's queue and its file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/Paths.h"
#include "tests/support/Application.h"
#include "tests/support/DiskCalls.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

/// Nothing is ever sent: the hit server that the fallback names is no server, so the head stays.
constexpr char kNoServer[] = "http://127.0.0.1:9/";

fs::path fileOf(const std::string& identifier = "tv.example.player") {
  return fs::path(getenv("XDG_STATE_HOME")) / identifier / "Library/orbiqCache/requests.ser";
}

/// The queue that the file holds, read without the agent.
std::vector<std::string> classesInFile(const fs::path& path) {
  RequestsFile reader;
  const fs::path copy = path.string() + ".copy";  // a lock of its own
  std::error_code missing;
  fs::copy_file(path, copy, fs::copy_options::overwrite_existing, missing);
  std::vector<std::string> classes;
  for (const auto& request : reader.load(copy)) {
    classes.emplace_back(request->archivedClass().name());
    if (request->requestType() != RequestTypeAudience) classes.back() += "*";
  }
  return classes;
}

void writeQueue(const RequestQueue& queue) {
  fs::create_directories(fileOf().parent_path());
  RequestsFile writer;
  const fs::path draft = fileOf().string() + ".draft";
  writer.save(draft, queue);
  fs::rename(draft, fileOf());
}

std::shared_ptr<orbiqRequest> audienceRequest() {
  return std::make_shared<orbiqRequest>(nullptr, RequestTypeAudience, SendingModeHost, "ABC",
                                        std::make_shared<orbiqTaggerID>("ABC", 0, false));
}

TEST(AgentQueue, KeepsTheYoungest500InOrder) {
  Application application(kNoServer);
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  agent.addRequestToQueue(nullptr);
  for (int number = 0; number < 503; ++number) {
    agent.addRequestToQueue(streamingRequest(SendingModeHost, std::to_string(number)));
  }
  ASSERT_TRUE(application.log().waitFor("We have now", 503));
  EXPECT_EQ(counts(agent.statistics()),
            (std::vector<std::uint64_t>{503, 0, 0, 0, 0, 3, 0, 0, 500}));
  RequestsFile reader;
  fs::copy_file(fileOf(), fileOf().string() + ".copy");
  const RequestQueue saved = reader.load(fileOf().string() + ".copy");
  ASSERT_EQ(saved.size(), 500U);
  for (std::size_t i = 0; i < saved.size(); ++i) {
    EXPECT_EQ(saved[i]->serial().toStdString(), std::to_string(i + 3));
  }
  const auto permissions = fs::status(fileOf()).permissions();
  EXPECT_EQ(permissions, fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::status(fileOf().parent_path()).permissions(), fs::perms::owner_all);
}

TEST(AgentQueue, OnlyStreamingRequestsSurviveARestartFollowedByAMarker) {
  Application application(kNoServer);
  const auto late = streamingRequest(SendingModeHost, "late");
  writeQueue({audienceRequest(), streamingRequest(), std::make_shared<orbiqClearCache>(),
              audienceRequest()});
  orbiqAuthManager::manager().setAuthToCache_forKey(
      std::make_shared<orbiqAuth>(nullptr, nullptr, false), late->taggerID());
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  EXPECT_EQ(counts(agent.statistics()), (std::vector<std::uint64_t>{3, 0, 0, 0, 0, 0, 2, 0, 1}));
  // The filter is not saved ...
  EXPECT_EQ(classesInFile(fileOf()).size(), 4U);
  agent.addRequestToQueue(late);
  ASSERT_TRUE(application.log().waitFor("We have now 3 request(s) to handle"));
  // ... until the next save.
  EXPECT_EQ(classesInFile(fileOf()),
            (std::vector<std::string>{"orbiqRequest*", "orbiqClearCache", "orbiqRequest*"}));
  RequestsFile reader;
  // While a marker is pending no cached authorization is attached.
  EXPECT_EQ(reader.load(fileOf().string() + ".copy").back()->auth(), nullptr);
}

TEST(AgentQueue, OfALongerFileEachFailedHeadIsDropped) {
  const Application application(kNoServer);
  RequestQueue saved;
  const auto fallback =
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL("ABC", AccessModeFull, "");
  while (saved.size() < 502) {
    saved.push_back(streamingRequest());
    saved.back()->setAuth(std::make_shared<orbiqAuth>(nullptr, fallback, false));
  }
  writeQueue(saved);
  const orbiqAgent& agent = orbiqAgent::sharedAgent();
  ASSERT_TRUE(application.log().waitFor("handling resulted in a timeout or lack of connection", 4));
  EXPECT_EQ(application.log().count("We have now 500 request(s) to handle"), 1U);
  EXPECT_EQ(counts(agent.statistics()),
            (std::vector<std::uint64_t>{502, 0, 0, 0, 0, 3, 0, 0, 499}));
  EXPECT_EQ(agent.statistics().lastFailure, "ABC: an earlier run got no authorization for it");
}

TEST(AgentQueue, AnAudienceOnlyFileYieldsAnEmptyQueue) {
  Application application(kNoServer);
  writeQueue({audienceRequest(), audienceRequest()});
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  agent.addRequestToQueue(streamingRequest());
  ASSERT_TRUE(application.log().waitFor("We have now 1 request(s) to handle"));
  EXPECT_EQ(classesInFile(fileOf()), (std::vector<std::string>{"orbiqRequest*"}));
}

TEST(AgentQueue, UnusableFilesYieldAnEmptyQueueSilently) {
  const Application application(kNoServer);
  writeQueue({streamingRequest(), streamingRequest()});
  std::ifstream stream(fileOf(), std::ios::binary);
  const std::string whole{std::istreambuf_iterator<char>(stream), {}};
  const fs::path path = fileOf().string() + ".broken";
  RequestsFile reader;
  const auto loaded = [&](const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    return reader.load(path).size();
  };
  ASSERT_EQ(loaded(whole), 2U);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    ASSERT_EQ(loaded(whole.substr(0, length)), 0U) << length;
  }
  EXPECT_EQ(loaded("bplist00 of somebody else"), 0U);
  fs::remove(path);
  EXPECT_TRUE(reader.load(path).empty());
  fs::create_directory(path);
  EXPECT_TRUE(reader.load(path).empty());
  EXPECT_TRUE(application.log().lines().empty());
}

std::size_t residentMemory() {
  std::size_t ignored = 0;
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> ignored >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

TEST(AgentQueue, AtRestTheFileIsSyncedOnceAndMemoryGivenBack) {
  Application application(kNoServer);
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  const std::size_t before = DiskCalls::soFar().files;
  auto add = [&, saves = std::size_t{0}](std::size_t count, std::size_t size) mutable {
    for (std::size_t i = 0; i < count; ++i) {
      agent.addRequestToQueue(streamingRequest(SendingModeHost, std::string(size, 'x')));
    }
    ASSERT_TRUE(application.log().waitFor("We have now", saves += count));
  };
  add(60, 1);
  add(16, 500'000);
  const std::size_t atWork = residentMemory();
  ASSERT_TRUE(DiskCalls::waitForFiles(before + 1));
  EXPECT_LT(residentMemory() + 4'000'000, atWork);
  add(1, 1);
  ASSERT_TRUE(DiskCalls::waitForFiles(before + 2));
  EXPECT_EQ(DiskCalls::soFar().files, before + 2);
}

TEST(AgentQueue, AnIndependentReaderOpensTheFile) {
  Application application(kNoServer);
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  const auto access = orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
      "ABC", AccessModeRestricted, kNoServer);
  orbiqAuthManager::manager().setAuthToCache_forKey(
      std::make_shared<orbiqAuth>(orbiqSession::orbiqSessionWithSerial_withCmsVI("ABC", "42"),
                                  access, false),
      std::make_shared<orbiqTaggerID>("ABC", 3, true));
  for (int i = 0; i < 2; ++i) agent.addRequestToQueue(streamingRequest());
  agent.addRequestToQueue(std::make_shared<orbiqClearCache>());
  ASSERT_TRUE(application.log().waitFor("We have now 3 request(s) to handle"));
  const std::string script = R"(
import plistlib, sys
archive = plistlib.load(open(sys.argv[1], 'rb'))
objects = archive['$objects']
at = lambda uid: objects[uid.data]
name = lambda record: at(record['$class'])['$classname']
root = at(archive['$top']['root'])
assert archive['$archiver'] == 'NSKeyedArchiver' and archive['$version'] == 100000
first, second, marker = map(at, root['NS.objects'])
assert [name(r) for r in (root, first, marker)] == ['NSMutableArray', 'orbiqRequest', 'orbiqClearCache']
assert at(marker['$class'])['$classes'] == ['orbiqClearCache', 'orbiqRequest', 'NSObject']
assert set(marker) == {'$class'}
assert set(first) == {'$class'} | {'orbiqRequest_' + k for k in (
  'parameters', 'requestType', 'sendingMode', 'lastFail', 'creationDate', 'serial', 'numberOfFails',
  'status', '_shouldRenewSession', '_taggerID', 'auth')}, set(first)
assert first['orbiqRequest_requestType'] == 1 and first['orbiqRequest__shouldRenewSession'] is False
assert name(at(first['orbiqRequest_creationDate'])) == 'NSDate'
assert abs(at(first['orbiqRequest_creationDate'])['NS.time'] - float(sys.argv[2])) < 1e-6
tagger = at(first['orbiqRequest__taggerID'])
assert tagger['orbiqTaggerID_isStreamTagger'] == 1 and tagger['orbiqTaggerID_isStreamTagger'] is not True
auth, other = at(first['orbiqRequest_auth']), at(second['orbiqRequest_auth'])
assert auth is not other and auth['orbiqAuth_currentAccess'] == other['orbiqAuth_currentAccess']
access, session = at(auth['orbiqAuth_currentAccess']), at(auth['orbiqAuth_currentSession'])
assert access['orbiqAccess_firstHitSuccessfullySent'] is False and access['orbiqAccess_accessMode'] == 1
assert at(access['orbiqAccess_host']) == 'http://127.0.0.1:9/ABC'
assert at(session['orbiqSesion_cmsVI']) == '42' and at(session['orbiqSesion_serial']) == 'ABC'
parameters = at(first['orbiqRequest_parameters'])
assert name(parameters) == 'NSMutableDictionary'
assert [at(k) for k in parameters['NS.keys']] == ['cmsRK'] and at(parameters['NS.objects'][0]) == '7'
)";
  const fs::path program = fileOf().parent_path() / "judge.py";
  std::ofstream(program) << script;
  const std::string created = std::to_string(application.clock().now().secondsSinceReferenceDate);
  const std::string command =
      "python3 '" + program.string() + "' '" + fileOf().string() + "' " + created;
  EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST(Agent, PartialIdsAreHandedOutOnce) {
  const Application application(kNoServer);
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  std::vector<std::vector<std::int64_t>> drawn(8);
  std::vector<std::thread> threads;
  for (auto& mine : drawn) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) mine.push_back(agent.getPartialID());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::int64_t> all;
  for (const auto& mine : drawn) {
    EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
    all.insert(mine.begin(), mine.end());
  }
  EXPECT_EQ(all.size(), 4000U);
  EXPECT_EQ(*all.begin(), 0);
  EXPECT_EQ(*all.rbegin(), 3999);
}

TEST(Agent, TheFirstTaggerOfASerialStays) {
  const Application application(kNoServer);
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  const auto first = std::make_shared<orbiqAudienceTagger>("ABC");
  agent.addorbiqAudienceTagger(first);
  agent.addorbiqAudienceTagger(std::make_shared<orbiqAudienceTagger>("ABC"));
  agent.addorbiqAudienceTagger(nullptr);
  EXPECT_EQ(agent.orbiqAudienceTaggerWithSerial("ABC"), first);
  EXPECT_EQ(agent.orbiqAudienceTaggerWithSerial("XYZ"), nullptr);
  EXPECT_EQ(application.log().count("(INFO) : A new orbiqAudienceTagger was created"), 3U);
}

}  // namespace
}  // namespace orbiq::test
