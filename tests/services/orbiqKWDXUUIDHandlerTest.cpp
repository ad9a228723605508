// The device identifier: in the file keychain as applications use it, and in one that refuses.
#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "orbiq/services/orbiqKWDXUUIDHandler/orbiqKWDXUUIDHandler.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "tests/support/Application.h"
#include "tests/support/Role.h"

namespace orbiq::test {
namespace {

using UUIDHandler = orbiqKWDXUUIDHandler;

const RoleRegistration asks("ask for the identifier", [](const auto& arguments) {
  HostApplication::describe({.libraryDirectory = arguments[0]});
  std::cout << UUIDHandler::UUID().description() << std::endl;
  return 0;
});

TEST(DeviceIdentifier, IsKeptInTheFileKeychainUntilReset) {
  const Application application("https://auth.example/");
  const auto anotherProcess = [] {
    return RoleProcess("ask for the identifier", {orbiq::libraryDirectory()}).readLine();
  };
  UUIDHandler::reset();  // nothing there: nothing deleted, nothing logged
  const String first = UUIDHandler::UUID();
  EXPECT_EQ(UUIDHandler::UUID(), first);
  EXPECT_EQ(anotherProcess(), first.toStdString());
  EXPECT_EQ(application.log().lines(), std::vector<std::string>());

  const String second = UUIDHandler::storeUUID(true);
  EXPECT_EQ(UUIDHandler::UUID(), first) << "what is remembered stays";
  EXPECT_EQ(anotherProcess(), second.toStdString());

  UUIDHandler::setAccessGroup("group");
  UUIDHandler::reset();  // of the group, which has none
  const String groups = UUIDHandler::UUID();
  EXPECT_TRUE(groups != first && groups != second);
  UUIDHandler::setAccessGroup(nullptr);
  UUIDHandler::reset();
  EXPECT_TRUE(UUIDHandler::storeUUID(true).isNull());
  EXPECT_EQ(application.log().count("Keychain Save Error: -25300"), 1U);
}

TEST(DeviceIdentifier, IsMadeNowhereIfOnlyRefusedDescriptionsSayWhereItIs) {
  std::vector<std::string> lines;
  HostDescription host{.bundleIdentifier = "..",
                       .logSink = [&](const LogLine& line) { lines.emplace_back(line.text); }};
  SystemLog::setSink(host.logSink);
  EXPECT_FALSE(HostApplication::describe(host).isNull());
  EXPECT_TRUE(UUIDHandler::UUID().isNull());
  EXPECT_TRUE(UUIDHandler::storeUUID(true).isNull());
  UUIDHandler::reset();
  EXPECT_EQ(std::vector(lines.begin() + 1, lines.end()),
            std::vector<std::string>({"KWDXUUIDHandler Unhandled Keychain Error -25291",
                                      "KWDXUUIDHandler Keychain Save Error: -25291",
                                      "KWDXUUIDHandler Keychain Delete Error: -25291"}));
  EXPECT_TRUE(std::filesystem::is_empty(getenv("XDG_STATE_HOME")));
}

/// A keychain of the host's, which gives the answers that it was told to give.
class ScriptedKeychain final : public Keychain {
 public:
  KeychainMatch copyMatching(const KeychainQuery& query) override {
    const bool isWhole = query.account == "kwdx_uuid_account" &&
                         query.service == "kwdx_uuid_service" && query.accessGroup == "group";
    return {.status = note(isWhole ? "look up" : "?"), .data = "\xFF"};
  }
  KeychainStatus add(const KeychainQuery&) override { return note("add"); }
  KeychainStatus update(const KeychainQuery&, const KeychainAttributes&) override {
    return note("update");
  }
  KeychainStatus deleteMatching(const KeychainQuery&) override { return note("delete"); }

  std::deque<int> statuses;
  std::string calls;

 private:
  KeychainStatus note(const char* call) {
    calls.append(call).append(" ");
    const int status = statuses.empty() ? 0 : statuses.front();
    if (!statuses.empty()) statuses.pop_front();
    if (status == 1) throw std::runtime_error("a fault of the host's");
    return static_cast<KeychainStatus>(status);
  }
};

TEST(DeviceIdentifier, OfAKeychainThatRefusesIsNullAndLogged) {
  const auto keychain = std::make_shared<ScriptedKeychain>();
  const Application application(
      "https://auth.example/", [&](HostDescription& host, Platform&) { host.keychain = keychain; });
  UUIDHandler::setAccessGroup("group");
  enum Question { kAsk, kReplace, kReset };
  const struct {
    Question question;
    std::deque<int> statuses;
    bool isAnswered;
    const char* calls;
    const char* logged;
  } cases[]{
      {kAsk, {}, false, "look up look up ", ""},                          // no text
      {kAsk, {0, errSecItemNotFound}, true, "look up look up add ", ""},  // deleted in between
      {kAsk, {-25308}, false, "look up ", "Unhandled Keychain Error -25308"},
      {kAsk, {0, -50}, false, "look up look up ", "Unhandled Keychain Error -50"},
      {kAsk, {1}, false, "look up ", "Unhandled Keychain Error -25291"},
      {kReplace, {-34018}, false, "update ", "Keychain Save Error: -34018"},
      {kReset, {-50, -50}, false, "look up delete ", "Keychain Delete Error: -50"},
  };
  std::size_t logged = 0;
  for (const auto& [question, statuses, isAnswered, calls, line] : cases) {
    keychain->statuses = statuses;
    keychain->calls.clear();
    String answer;
    if (question == kAsk) answer = UUIDHandler::UUID();
    if (question == kReplace) answer = UUIDHandler::storeUUID(true);
    if (question == kReset) UUIDHandler::reset();
    EXPECT_EQ(!answer.isNull(), isAnswered) << calls;
    EXPECT_EQ(keychain->calls, calls);
    if (*line == '\0') continue;
    EXPECT_EQ(application.log().lines().at(logged++), std::string("KWDXUUIDHandler ") + line);
  }
  EXPECT_EQ(application.log().lines().size(), logged);
}

}  // namespace
}  // namespace orbiq::test
