// The device identifier: in the file keychain as applications use it, and in one that refuses.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <iostream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "orbiq/services/orbiqKWDXUUIDHandler/orbiqKWDXUUIDHandler.h"
#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "tests/support/Application.h"
#include "tests/support/Role.h"

namespace orbiq::test {
namespace {

using Handler = orbiqKWDXUUIDHandler;

/// Gives the answers that it was told to give, and notes what it was asked.
class ScriptedKeychain final : public Keychain {
 public:
  KeychainMatch copyMatching(const KeychainQuery& query) override {
    return {.status = note("look up", query), .data = data};
  }
  KeychainStatus add(const KeychainQuery& query) override {
    return note("add " + query.valueData.value_or("nothing"), query);
  }
  KeychainStatus update(const KeychainQuery& query, const KeychainAttributes& changes) override {
    return note("update to " + changes.valueData.value_or("nothing"), query);
  }
  KeychainStatus deleteMatching(const KeychainQuery& query) override {
    return note("delete", query);
  }
  std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }

  std::deque<int> statuses;
  std::optional<std::string> data;
  std::vector<std::string> calls;

 private:
  KeychainStatus note(const std::string& call, const KeychainQuery& query) {
    calls.push_back(call + (query.returnData ? " data" : "") +
                    (query.returnAttributes ? " attributes" : ""));
    EXPECT_EQ(query.itemClass, kSecClassGenericPassword);
    EXPECT_EQ(query.account, "kwdx_uuid_account");
    EXPECT_EQ(query.service, "kwdx_uuid_service");
    const int status = statuses.empty() ? 0 : statuses.front();
    if (!statuses.empty()) statuses.pop_front();
    if (status == 1) throw std::runtime_error("a fault of the host's");
    return static_cast<KeychainStatus>(status);
  }
};

class KeychainDouble : public testing::Test {
 protected:
  using Calls = std::vector<std::string>;

  const std::shared_ptr<ScriptedKeychain> keychain = std::make_shared<ScriptedKeychain>();
  Application application{"https://auth.example/",
                          [this](HostDescription& host, Platform&) { host.keychain = keychain; }};
};

/// Prints the answer and the log, then the answer to a second question.
const RoleRegistration asks("ask for the identifier",
                            [](const std::vector<std::string>& arguments) {
                              std::string log;
                              HostApplication::describe(
                                  {.libraryDirectory = arguments[0],
                                   .logSink = [&](const LogLine& line) { log += line.text; }});
                              const std::string answer = Handler::UUID().description();
                              std::cout << answer << " " << log << std::endl;
                              std::cout << Handler::UUID().description() << std::endl;
                              return 0;
                            });

TEST(DeviceIdentifier, IsKeptInTheFileKeychainUntilReset) {
  const Application application("https://auth.example/");
  Handler::reset();  // nothing there: nothing deleted, nothing logged
  const String first = Handler::UUID();
  EXPECT_EQ(first.length(), 36U);
  EXPECT_EQ(Handler::UUID(), first);
  EXPECT_EQ(RoleProcess("ask for the identifier", {orbiq::libraryDirectory()}).readLine(),
            first.toStdString() + " ");
  EXPECT_EQ(application.log().lines(), std::vector<std::string>());

  EXPECT_TRUE(Handler::storeUUID(false).isNull());
  const String second = Handler::storeUUID(true);
  EXPECT_EQ(Handler::UUID(), first) << "what is remembered stays";
  EXPECT_EQ(RoleProcess("ask for the identifier", {orbiq::libraryDirectory()}).readLine(),
            second.toStdString() + " ");

  EXPECT_TRUE(Handler::accessGroup().isNull());
  MutableString group("one");
  Handler::setAccessGroup(group);
  group.setString("group");
  EXPECT_EQ(orbiqCreateKeychainQueryDictionary().accessGroup, "group");
  EXPECT_EQ(Handler::UUID(), first);
  Handler::reset();  // of the group, which has none
  const String groups = Handler::UUID();
  EXPECT_EQ(std::set<std::string>({first.toStdString(), second.toStdString(), groups.toStdString()})
                .size(),
            3U);
  EXPECT_EQ(Handler::UUID(), groups);
  Handler::setAccessGroup(nullptr);
  Handler::reset();
  EXPECT_TRUE(Handler::storeUUID(true).isNull());
  EXPECT_EQ(application.log().lines(),
            std::vector<std::string>({"KWDXUUIDHandler Keychain Save Error: -25299",
                                      "KWDXUUIDHandler Keychain Save Error: -25300"}));
  EXPECT_NE(Handler::UUID(), first);
  EXPECT_FALSE(HostApplication::describe({}).isNull()) << "the directory is decided";
}

TEST(DeviceIdentifier, IsMadeNowhereIfOnlyRefusedDescriptionsSayWhereItIs) {
  std::vector<std::string> lines;
  HostDescription host{.bundleIdentifier = "..",
                       .logSink = [&](const LogLine& line) { lines.emplace_back(line.text); }};
  SystemLog::setSink(host.logSink);
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(HostApplication::describe(host).isNull());
  EXPECT_TRUE(Handler::UUID().isNull());
  EXPECT_TRUE(Handler::storeUUID(false).isNull());
  EXPECT_TRUE(Handler::storeUUID(true).isNull());
  Handler::reset();
  EXPECT_EQ(std::vector(lines.begin() + 2, lines.end()),
            std::vector<std::string>({"KWDXUUIDHandler Unhandled Keychain Error -25291",
                                      "KWDXUUIDHandler Keychain Save Error: -25291",
                                      "KWDXUUIDHandler Keychain Save Error: -25291",
                                      "KWDXUUIDHandler Keychain Delete Error: -25291"}));
  EXPECT_TRUE(std::filesystem::is_empty(getenv("XDG_STATE_HOME")));
}

TEST(DeviceIdentifier, IsKeptWhereAnAcceptedDescriptionSays) {
  SystemLog::setSink([](const LogLine&) {});
  HostDescription host{.bundleIdentifier = ".."};
  EXPECT_FALSE(HostApplication::describe(host).isNull());
  host.bundleIdentifier = "accepted";
  EXPECT_TRUE(HostApplication::describe(host).isNull());
  host.bundleIdentifier = "..";
  EXPECT_FALSE(HostApplication::describe(host).isNull());
  EXPECT_EQ(Handler::UUID().length(), 36U);
  EXPECT_TRUE(std::filesystem::exists(std::string(getenv("XDG_STATE_HOME")) + "/accepted"));
}

TEST(DeviceIdentifier, ProcessesThatAskAtOnceAgree) {
  const std::string above = getenv("XDG_STATE_HOME");
  for (int round = 0; round < 10; ++round) {
    const std::string library = above + "/" + std::to_string(round);
    std::vector<std::unique_ptr<RoleProcess>> racers;
    for (int i = 0; i < 4; ++i) {
      racers.push_back(std::make_unique<RoleProcess>("ask for the identifier",
                                                     std::vector<std::string>{library}));
    }
    std::set<std::string> answers;
    std::set<std::string> nextAnswers;
    for (const auto& racer : racers) {
      const std::string answer = racer->readLine();
      if (answer != "(null) KWDXUUIDHandler Keychain Save Error: -25299") answers.insert(answer);
      nextAnswers.insert(racer->readLine() + " ");
    }
    EXPECT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers, nextAnswers);
  }
}

TEST_F(KeychainDouble, IsLookedUpTwiceAndThenRemembered) {
  keychain->data = "ABC";
  EXPECT_EQ(Handler::UUID(), "ABC");
  EXPECT_EQ(Handler::UUID(), "ABC");
  EXPECT_EQ(keychain->takeCalls(), Calls({"look up", "look up data"}));
  Handler::reset();
  EXPECT_EQ(keychain->takeCalls(), Calls({"look up attributes", "delete attributes"}));
  for (const auto& unusable : {std::optional<std::string>(), std::optional<std::string>("\xFF")}) {
    keychain->data = unusable;
    EXPECT_TRUE(Handler::UUID().isNull());
    EXPECT_EQ(keychain->takeCalls(), Calls({"look up", "look up data"}));
  }
  EXPECT_EQ(application.log().lines(), Calls());

  keychain->statuses = {errSecItemNotFound};
  const String added = Handler::UUID();
  EXPECT_EQ(keychain->takeCalls(), Calls({"look up", "add " + added.toStdString()}));
  keychain->statuses = {0, errSecItemNotFound};  // deleted between the two looks
  const String another = Handler::UUID();
  EXPECT_EQ(keychain->takeCalls(),
            Calls({"look up", "look up data", "add " + another.toStdString()}));
  const String updated = Handler::storeUUID(true);
  EXPECT_EQ(keychain->takeCalls(), Calls({"update to " + updated.toStdString()}));
}

TEST_F(KeychainDouble, IsLeftAloneByAForkedChild) {
  armForkGuard();
  const pid_t child = fork();
  if (child == 0) {
    const bool isNull = Handler::UUID().isNull() && Handler::storeUUID(true).isNull();
    Handler::reset();
    _exit(isNull && keychain->takeCalls().empty() ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(KeychainDouble, RefusalsAreLoggedAndAddNothing) {
  keychain->statuses = {errSecInteractionNotAllowed, 0, -50, 1};
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(Handler::UUID().isNull());
  EXPECT_EQ(keychain->takeCalls(), Calls({"look up", "look up", "look up data", "look up"}));
  keychain->statuses = {-25308, -34018};
  EXPECT_TRUE(Handler::storeUUID(false).isNull());
  EXPECT_TRUE(Handler::storeUUID(true).isNull());
  keychain->calls.clear();
  keychain->statuses = {-25308, -25308};  // an unreadable item is deleted nevertheless
  Handler::reset();
  EXPECT_EQ(keychain->takeCalls(), Calls({"look up attributes", "delete attributes"}));
  EXPECT_EQ(application.log().lines(), Calls({"KWDXUUIDHandler Unhandled Keychain Error -25308",
                                              "KWDXUUIDHandler Unhandled Keychain Error -50",
                                              "KWDXUUIDHandler Unhandled Keychain Error -25291",
                                              "KWDXUUIDHandler Keychain Save Error: -25308",
                                              "KWDXUUIDHandler Keychain Save Error: -34018",
                                              "KWDXUUIDHandler Keychain Delete Error: -25308"}));
}

}  // namespace
}  // namespace orbiq::test
