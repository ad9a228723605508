// The device identifier in a real keyring, on a bus of the test's own: the user's is never asked.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "orbiq/secretservice/SecretServiceKeychain.h"
#include "orbiq/services/orbiqKWDXUUIDHandler/orbiqKWDXUUIDHandler.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

/// Becomes a command of the shell's, which ends with this program.
const RoleRegistration becomes("become", [](const std::vector<std::string>& arguments) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  execl("/bin/bash", "bash", "-c", ("exec " + arguments[0]).c_str(), nullptr);
  return 127;
});

/// Does one thing as an application that uses the keyring, and prints what came of it: the log's
/// lines, or else the result.
const RoleRegistration applies("apply", [](const std::vector<std::string>& arguments) {
  std::string log;
  HostApplication::describe({.bundleIdentifier = arguments[1],
                             .logSink = [&](const LogLine& line) { log += line.text; },
                             .keychain = makeSecretServiceKeychain()});
  if (arguments.size() > 2) orbiqKWDXUUIDHandler::setAccessGroup(arguments[2]);
  String result = "done";
  if (arguments[0] == "UUID") result = orbiqKWDXUUIDHandler::UUID();
  if (arguments[0] == "add") result = orbiqKWDXUUIDHandler::storeUUID(false);
  if (arguments[0] == "update") result = orbiqKWDXUUIDHandler::storeUUID(true);
  if (arguments[0] == "reset") orbiqKWDXUUIDHandler::reset();
  std::cout << (log.empty() ? result.description() : log) << std::endl;
  return 0;
});

class SecretServiceKeychainTest : public testing::Test {
 protected:
  SecretServiceKeychainTest() {
    const std::string directory = home.path();
    for (const char* variable :
         {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_RUNTIME_DIR"}) {
      setenv(variable, directory.c_str(), 1);
    }
    // Without directories of services, the bus starts no daemon by itself.
    const std::string config = directory + "/bus.conf";
    std::ofstream(config) << "<busconfig><type>session</type><listen>unix:dir=" << directory
                          << "</listen><policy context='default'><allow send_destination='*'/>"
                             "<allow receive_sender='*'/><allow own='*'/></policy></busconfig>";
    bus = become("dbus-daemon --config-file=" + config + " --nofork --nosyslog --print-address");
    setenv("DBUS_SESSION_BUS_ADDRESS", bus->readLine().c_str(), 1);
  }

  static std::unique_ptr<RoleProcess> become(const std::string& command) {
    return std::make_unique<RoleProcess>("become", std::vector<std::string>{command});
  }
  void startKeyring(bool isUnlocked = true) {
    keyring = become("gnome-keyring-daemon --foreground --components=secrets --control-directory=" +
                     (home.path() / "control").string() +
                     (isUnlocked ? " --unlock <<<password" : " </dev/null"));
    EXPECT_EQ(become("gdbus wait --session org.freedesktop.secrets")->wait(), 0);
  }
  void killKeyring() {
    keyring->kill(SIGKILL);
    keyring->wait();
  }
  static void call(const std::string& method, const std::string& keyring) {
    const std::string path = "/org/freedesktop/secrets";
    EXPECT_EQ(become("gdbus call --session --dest org.freedesktop.secrets --object-path " + path +
                     " --method org.freedesktop.Secret.Service." + method + " \"['" + path +
                     "/collection/" + keyring + "']\"")
                  ->wait(),
              0);
  }
  static std::string apply(const std::vector<std::string>& arguments) {
    return RoleProcess("apply", arguments).readLine();
  }
  static std::string identifier() { return apply({"UUID", "tv.example.player"}); }
  /// The answers to all four operations, by an application of its own each.
  static std::vector<std::string> answers() {
    std::vector<std::string> all;
    for (const char* operation : {"UUID", "add", "update", "reset"}) {
      all.push_back(apply({operation, "tv.example.player"}));
    }
    return all;
  }
  static std::vector<std::string> failures(const std::string& status) {
    return {"KWDXUUIDHandler Unhandled Keychain Error " + status,
            "KWDXUUIDHandler Keychain Save Error: " + status,
            "KWDXUUIDHandler Keychain Save Error: " + status,
            "KWDXUUIDHandler Keychain Delete Error: " + status};
  }

  const TemporaryDirectory home;
  std::unique_ptr<RoleProcess> bus;
  std::unique_ptr<RoleProcess> keyring;
};

TEST_F(SecretServiceKeychainTest, KeepsOneIdentifierInAnUnlockedKeyring) {
  startKeyring();
  const std::string first = identifier();
  EXPECT_EQ(first.size(), 36U) << first;
  EXPECT_EQ(identifier(), first);
  EXPECT_EQ(apply({"add", "tv.example.player"}), "KWDXUUIDHandler Keychain Save Error: -25299");
  const std::string second = apply({"update", "tv.example.player"});
  EXPECT_NE(second, first);
  killKeyring();
  startKeyring();
  EXPECT_EQ(identifier(), second);
  EXPECT_EQ(apply({"reset", "tv.example.player"}), "done");
  EXPECT_EQ(apply({"update", "tv.example.player"}), "KWDXUUIDHandler Keychain Save Error: -25300");
  EXPECT_EQ(apply({"reset", "tv.example.player"}), "done");
  const std::string third = identifier();
  EXPECT_EQ(third.size(), 36U) << third;
  EXPECT_NE(third, second);
}

TEST_F(SecretServiceKeychainTest, SharesAnIdentifierOnlyByAccessGroup) {
  startKeyring();
  const std::string own = identifier();
  const std::string others = apply({"UUID", "tv.example.radio"});
  const std::string shared = apply({"UUID", "tv.example.player", "group"});
  EXPECT_EQ(apply({"UUID", "tv.example.radio", "group"}), shared);
  EXPECT_NE(apply({"UUID", "tv.example.radio", "tv.example.player"}), own);
  EXPECT_EQ(apply({"reset", "tv.example.radio"}), "done");
  EXPECT_EQ(apply({"UUID", "tv.example.player", "no\xFFtext"}), failures("-25291").front());
  EXPECT_EQ(identifier(), own);
  EXPECT_NE(own, others);
  EXPECT_NE(own, shared);
}

TEST_F(SecretServiceKeychainTest, FindsTheIdentifierInEveryKeyring) {
  startKeyring();
  const std::string kept = identifier();
  killKeyring();
  // Now the user has another one, too, which takes no password, and which is the default.
  std::ofstream(home.path() / "keyrings/other.keyring") << "[keyring]\ndisplay-name=other\n";
  std::ofstream(home.path() / "keyrings/default") << "other";
  startKeyring();
  call("Unlock", "other");
  EXPECT_EQ(identifier(), kept);
  EXPECT_EQ(apply({"add", "tv.example.player"}), "KWDXUUIDHandler Keychain Save Error: -25299");
  const std::string added = apply({"UUID", "tv.example.player", "group"});
  EXPECT_EQ(added.size(), 36U) << added;
  call("Lock", "login");
  EXPECT_EQ(apply({"UUID", "tv.example.player", "group"}), added);
  // What no open keyring has may be in the one that is locked.
  EXPECT_EQ(answers(), failures("-25308"));
  EXPECT_EQ(apply({"UUID", "tv.example.radio"}), failures("-25308").front());
}

TEST_F(SecretServiceKeychainTest, MakesNoNewIdentifierWhereTheKeyringIsOutOfReach) {
  EXPECT_EQ(answers(), failures("-25291"));  // no daemon
  startKeyring(false);
  EXPECT_EQ(answers(), failures("-25291"));  // no keyring
  killKeyring();

  startKeyring();
  const std::string kept = identifier();
  EXPECT_EQ(kept.size(), 36U) << kept;
  // In one process that goes on: the keychain holds on to nothing of the daemon that was killed.
  const std::shared_ptr<Keychain> keychain = makeSecretServiceKeychain();
  HostApplication::describe({.bundleIdentifier = "tv.example.player"});
  KeychainQuery query = orbiqCreateKeychainQueryDictionary();
  query.returnData = true;
  EXPECT_EQ(keychain->copyMatching(query).data, kept);
  killKeyring();
  EXPECT_EQ(keychain->copyMatching(query).status, errSecNotAvailable);
  EXPECT_EQ(answers(), failures("-25291"));
  startKeyring(false);
  EXPECT_EQ(keychain->copyMatching(query).status, errSecInteractionNotAllowed);
  EXPECT_EQ(keychain->add(query), errSecInteractionNotAllowed);
  EXPECT_EQ(answers(), failures("-25308"));
  killKeyring();
  startKeyring();
  EXPECT_EQ(keychain->copyMatching(query).data, kept);

  bus->kill(SIGKILL);
  bus->wait();
  EXPECT_EQ(keychain->copyMatching(query).status, errSecNotAvailable);
  EXPECT_EQ(answers(), failures("-25291"));
}

}  // namespace
}  // namespace orbiq::test
