#include "orbiq/services/platform/host/LibraryDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/host/HostApplication.h"

namespace orbiq {
namespace {

std::string absoluteFromEnvironment(const char* variable) {
  // A relative path would lead into whatever the working directory happens to be.
  const char* const value = secure_getenv(variable);
  return value != nullptr && *value == '/' ? value : std::string();
}

std::string homeDirectory() {
  if (std::string home = absoluteFromEnvironment("HOME"); !home.empty()) return home;
  passwd entry{};
  passwd* user = nullptr;
  std::vector<char> texts(16384);
  getpwuid_r(getuid(), &entry, texts.data(), texts.size(), &user);
  const bool isKnown = user != nullptr && user->pw_dir != nullptr && *user->pw_dir == '/';
  return isKnown ? user->pw_dir : "/nonexistent";
}

std::string findLibraryDirectory() {
  const HostDescription& host = HostApplication::current();
  if (host.libraryDirectory.view().starts_with('/')) return host.libraryDirectory.toStdString();
  if (!host.libraryDirectory.isEmpty()) {
    SystemLog::write(LoggingModeError,
                     "(ERROR) : ORBIQ_LIBRARY_DIRECTORY is not used: it must be an absolute path");
  }
  // Never without a name, but where there was no memory for the defaults. The next call has some.
  if (host.bundleIdentifier.isEmpty()) throw std::bad_alloc();
  std::string state = absoluteFromEnvironment("XDG_STATE_HOME");
  if (state.empty()) state = homeDirectory() + "/.local/state";
  return state + "/" + host.bundleIdentifier.toStdString() + "/Library";
}

}  // namespace

const std::string& libraryDirectory() {
  static const auto* const path = new std::string(findLibraryDirectory());
  return *path;
}

}  // namespace orbiq
