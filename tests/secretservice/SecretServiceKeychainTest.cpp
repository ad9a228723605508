// The device identifier in a real keyring, on a bus of the test's own: the user's is never asked.
#include <gio/gio.h>
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

/// Becomes another program: `PASSWORD COMMAND...`, with the password as its standard input.
const RoleRegistration becomes("become", [](const std::vector<std::string>& arguments) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int ends[2];
  if (pipe(ends) != 0) return 1;
  if (write(ends[1], arguments[0].data(), arguments[0].size()) < 0) return 1;
  dup2(ends[0], STDIN_FILENO);
  close(ends[0]);
  close(ends[1]);
  std::vector<std::string> words(arguments.begin() + 1, arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
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

using Bus = std::unique_ptr<GDBusConnection, decltype(&g_object_unref)>;
Bus connectToBus() {
  return {g_dbus_connection_new_for_address_sync(
              getenv("DBUS_SESSION_BUS_ADDRESS"),
              static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
              nullptr, nullptr, nullptr),
          g_object_unref};
}

/// Calls the keyring's daemon. The text that stands last in its answer, or "".
std::string ask(const Bus& bus, const std::string& method, GVariant* arguments) {
  GError* error = nullptr;
  const std::size_t dot = method.rfind('.');
  GVariant* const answer =
      g_dbus_connection_call_sync(bus.get(), "org.freedesktop.secrets", "/org/freedesktop/secrets",
                                  method.substr(0, dot).c_str(), method.substr(dot + 1).c_str(),
                                  arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  EXPECT_NE(answer, nullptr) << method << ": " << (error ? error->message : "");
  if (answer == nullptr) return {};
  const gsize count = g_variant_n_children(answer);
  GVariant* const last = count > 0 ? g_variant_get_child_value(answer, count - 1) : nullptr;
  std::string text;
  if (last && !g_variant_is_container(last)) text = g_variant_get_string(last, nullptr);
  if (last) g_variant_unref(last);
  g_variant_unref(answer);
  return text;
}

constexpr char kService[] = "org.freedesktop.Secret.Service.";
/// Makes another keyring, unlocked, the default one, as a user does who is asked for its password.
/// Returns the one that was it before.
std::string makeDefaultKeyring(const Bus& bus) {
  const std::string before =
      ask(bus, std::string(kService) + "ReadAlias", g_variant_new("(s)", "default"));
  const std::string session = ask(bus, std::string(kService) + "OpenSession",
                                  g_variant_new("(sv)", "plain", g_variant_new_string("")));
  const std::string made =
      ask(bus, "org.gnome.keyring.InternalUnsupportedGuiltRiddenInterface.CreateWithMasterPassword",
          g_variant_new_parsed("({'org.freedesktop.Secret.Collection.Label': <'b'>}, "
                               "(%o, @ay [], @ay [98], 'text/plain'))",
                               session.c_str()));
  ask(bus, std::string(kService) + "SetAlias", g_variant_new("(so)", "default", made.c_str()));
  return before;
}

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
    bus = std::make_unique<RoleProcess>(
        "become", std::vector<std::string>{"", "dbus-daemon", "--config-file=" + config, "--nofork",
                                           "--nosyslog", "--print-address"});
    setenv("DBUS_SESSION_BUS_ADDRESS", bus->readLine().c_str(), 1);
  }

  void startKeyring(const std::string& password) {
    std::vector<std::string> words{password,
                                   "gnome-keyring-daemon",
                                   "--foreground",
                                   "--components=secrets",
                                   "--control-directory",
                                   home.path() / "control"};
    if (!password.empty()) words.emplace_back("--unlock");
    keyring = std::make_unique<RoleProcess>("become", words);
    awaitKeyring(true);
  }
  void killKeyring() {
    keyring->kill(SIGKILL);
    keyring->wait();
    awaitKeyring(false);
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

 private:
  static void awaitKeyring(bool present) {
    bool isPresent = !present;
    const Bus connection = connectToBus();
    const guint watch = g_bus_watch_name_on_connection(
        connection.get(), "org.freedesktop.secrets", G_BUS_NAME_WATCHER_FLAGS_NONE,
        [](GDBusConnection*, const char*, const char*, void* to) {
          *static_cast<bool*>(to) = true;
        },
        [](GDBusConnection*, const char*, void* to) { *static_cast<bool*>(to) = false; },
        &isPresent, nullptr);
    while (isPresent != present) g_main_context_iteration(nullptr, TRUE);
    g_bus_unwatch_name(watch);
  }
};

TEST_F(SecretServiceKeychainTest, KeepsOneIdentifierInAnUnlockedKeyring) {
  startKeyring("password");
  const std::string first = identifier();
  EXPECT_EQ(first.size(), 36U) << first;
  EXPECT_EQ(identifier(), first);
  EXPECT_EQ(apply({"add", "tv.example.player"}), "KWDXUUIDHandler Keychain Save Error: -25299");
  const std::string second = apply({"update", "tv.example.player"});
  EXPECT_NE(second, first);
  killKeyring();
  startKeyring("password");
  EXPECT_EQ(identifier(), second);
  EXPECT_EQ(apply({"reset", "tv.example.player"}), "done");
  EXPECT_EQ(apply({"update", "tv.example.player"}), "KWDXUUIDHandler Keychain Save Error: -25300");
  EXPECT_EQ(apply({"reset", "tv.example.player"}), "done");
  const std::string third = identifier();
  EXPECT_EQ(third.size(), 36U) << third;
  EXPECT_NE(third, second);
}

TEST_F(SecretServiceKeychainTest, SharesAnIdentifierOnlyByAccessGroup) {
  startKeyring("password");
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
  startKeyring("password");
  const std::string kept = identifier();
  const Bus ours = connectToBus();
  const std::string first = makeDefaultKeyring(ours);
  EXPECT_EQ(identifier(), kept);
  EXPECT_EQ(apply({"add", "tv.example.player"}), "KWDXUUIDHandler Keychain Save Error: -25299");
  const std::string added = apply({"UUID", "tv.example.player", "group"});
  EXPECT_EQ(added.size(), 36U) << added;
  ask(ours, std::string(kService) + "Lock", g_variant_new_parsed("([%o],)", first.c_str()));
  EXPECT_EQ(apply({"UUID", "tv.example.player", "group"}), added);
  // What no open keyring has may be in the one that is locked.
  EXPECT_EQ(answers(), failures("-25308"));
  EXPECT_EQ(apply({"UUID", "tv.example.radio"}), failures("-25308").front());
}

TEST_F(SecretServiceKeychainTest, MakesNoNewIdentifierWhereTheKeyringIsOutOfReach) {
  EXPECT_EQ(answers(), failures("-25291"));  // no daemon
  startKeyring("");
  EXPECT_EQ(answers(), failures("-25291"));  // no keyring
  killKeyring();

  startKeyring("password");
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
  startKeyring("");
  EXPECT_EQ(keychain->copyMatching(query).status, errSecInteractionNotAllowed);
  EXPECT_EQ(keychain->add(query), errSecInteractionNotAllowed);
  EXPECT_EQ(answers(), failures("-25308"));
  killKeyring();
  startKeyring("password");
  EXPECT_EQ(keychain->copyMatching(query).data, kept);

  bus->kill(SIGKILL);
  bus->wait();
  EXPECT_EQ(keychain->copyMatching(query).status, errSecNotAvailable);
  EXPECT_EQ(answers(), failures("-25291"));
}

}  // namespace
}  // namespace orbiq::test
