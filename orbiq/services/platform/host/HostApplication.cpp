#include "orbiq/services/platform/host/HostApplication.h"

#include <arpa/inet.h>
#include <limits.h>
#include <netinet/in.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <list>
#include <new>
#include <utility>

#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/log/ForkedAway.h"
#include "orbiq/services/platform/text/Url.h"
#include "orbiq/services/platform/threads/Mutex.h"

namespace orbiq {
namespace {

using Descriptions = std::list<HostDescription>;

struct State {
  Mutex lock;
  // Every description that ever counted stays alive, as callers hold references to it.
  Descriptions descriptions ORBIQ_GUARDED_BY(lock);
  bool settled ORBIQ_GUARDED_BY(lock) = false;
  std::atomic<bool> accepted = false;
  std::atomic<bool> refused = false;
  // The last of them, for readers: they are on every hit's way and take no lock.
  std::atomic<const HostDescription*> current{nullptr};

  void add(Descriptions made) ORBIQ_REQUIRES(lock) {
    descriptions.splice(descriptions.end(), made);
    current.store(&descriptions.back(), std::memory_order_release);
  }
};

State& state() {
  static NeverDestroyed<State> only;
  return *only;
}

/// The first argument may be anything; the kernel knows the name.
std::string executableName() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  const std::string_view text(path, length > 0 ? static_cast<std::size_t>(length) : 0);
  std::string name(text.substr(text.rfind('/') + 1));
  // An update may have replaced the file since; the application is the same one.
  constexpr std::string_view kReplaced = " (deleted)";
  if (name.ends_with(kReplaced)) name.resize(name.size() - kReplaced.size());
  return name.empty() || name.starts_with('.') ? "application" : name;
}

void setFromEnvironment(String& field, const char* variable) {
  const char* const value = secure_getenv(variable);
  if (field.isNull() && value != nullptr && *value != '\0') field = value;
}

/// Texts become the library's own: what was checked must not change afterwards.
HostDescription withDefaults(HostDescription description) {
  for (String HostDescription::* text :
       {&HostDescription::bundleIdentifier, &HostDescription::bundleName,
        &HostDescription::shortVersion, &HostDescription::authorizationServer,
        &HostDescription::libraryDirectory, &HostDescription::caBundle}) {
    description.*text = (description.*text).copy();
  }
  const String executable(executableName());
  if (description.bundleIdentifier.isEmpty()) description.bundleIdentifier = executable;
  if (description.bundleName.isNull()) description.bundleName = executable;
  setFromEnvironment(description.authorizationServer, "ORBIQ_AUTHORIZATION_SERVER");
  setFromEnvironment(description.libraryDirectory, "ORBIQ_LIBRARY_DIRECTORY");
  return description;
}

bool isLoopback(const std::string& host) {
  in6_addr address6{};
  if (inet_pton(AF_INET6, host.c_str(), &address6) == 1) return IN6_IS_ADDR_LOOPBACK(&address6);
  if (strcasecmp(host.c_str(), "localhost") == 0) return true;
  in_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1 &&
         (ntohl(address.s_addr) >> 24) == IN_LOOPBACKNET;
}

/// Null if the text can be used. No reason shows a password.
String whatIsWrongWithServer(const String& server) {
  if (server.isEmpty()) return "no authorization server is set";
  const std::string text = server.toStdString();
  const std::optional<Url> url = Url::fromText(server);
  const bool mayBeShown = text.find('@') == text.npos;
  const std::string shown =
      mayBeShown ? "the authorization server \"" + text + "\"" : "the authorization server";
  if (!url || url->host().empty()) return shown + " is not a URL of a server";
  if (url->textWithoutUser() != text) return shown + " must be named without a user and a password";
  if (url->scheme() != "https" && !(url->scheme() == "http" && isLoopback(url->host()))) {
    return shown + " must be https (http only on loopback)";
  }
  if (text.find('#') != text.npos)
    return shown + " must have no fragment (\"#\"), which is never sent";
  if (!text.ends_with('/')) return shown + " must end in \"/\"";
  return nullptr;
}

String whatIsWrongWith(const HostDescription& description) {
  const std::string_view identifier = description.bundleIdentifier.view();
  if (identifier.starts_with('.') || identifier.size() > NAME_MAX ||
      identifier.find('/') != std::string_view::npos ||
      identifier.find('\0') != std::string_view::npos) {
    return "the bundle identifier \"" + std::string(identifier) + "\" cannot name a directory";
  }
  if (!description.libraryDirectory.isNull() &&
      !description.libraryDirectory.view().starts_with('/')) {
    return "the library directory must be an absolute path";
  }
  if (description.authorizationServer.isNull()) return nullptr;
  return whatIsWrongWithServer(description.authorizationServer);
}

String accept(const HostDescription& description) {
  String reason = whatIsWrongWith(description);
  const Lock lock(state().lock);
  if (state().settled) return reason.isNull() ? "the library is in use already" : reason;
  if (!reason.isNull()) {
    state().refused = true;
    return reason;
  }
  Descriptions made;
  made.push_back(withDefaults(description));
  if (!SystemLog::setSink(description.logSink)) throw std::bad_alloc();
  state().add(std::move(made));  // nothing fails from here on
  state().accepted = true;
  return nullptr;
}

const HostDescription& known() {
  if (const auto* const current = state().current.load(std::memory_order_acquire)) return *current;
  const Lock lock(state().lock);
  if (state().descriptions.empty()) {
    Descriptions made;
    made.push_back(withDefaults({}));
    state().add(std::move(made));
  }
  return state().descriptions.back();
}

}  // namespace

String HostApplication::describe(const HostDescription& description) {
  String reason = String::outOfMemory();
  try {
    if (isForkedAway()) return "this process was forked from one that uses the library";
    reason = accept(description);
  } catch (const std::bad_alloc&) {
    state().refused = true;
  }
  if (reason.isNull()) return reason;
  // The logger and its threshold stand on a higher floor: this line is always printed.
  constexpr const char* kRefused = "(ERROR) : The description of the application was refused: ";
  try {
    SystemLog::write(LoggingModeError, kRefused + reason.toStdString());
  } catch (const std::bad_alloc&) {
    SystemLog::write(LoggingModeError, kRefused);
  }
  return reason;
}

const HostDescription& HostApplication::current() try {
  return known();
} catch (const std::bad_alloc&) {
  static NeverDestroyed<HostDescription> unknown;
  return *unknown;
}

void HostApplication::settle() {
  if (inForkedChild()) return;
  const Lock lock(state().lock);
  state().settled = true;
}

bool HostApplication::wasOnlyRefused() { return state().refused && !state().accepted; }

String HostApplication::authorizationServerProblem() try {
  return whatIsWrongWithServer(known().authorizationServer);
} catch (const std::bad_alloc&) {
  return String::outOfMemory();
}

}  // namespace orbiq
