#include "orbiq/services/platform/Paths.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/Descriptor.h"
#include "orbiq/services/platform/HostApplication.h"

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
  // Never without a name, but where there was no memory for the defaults. The next call has some.
  if (host.bundleIdentifier.isEmpty()) throw std::bad_alloc();
  std::string state = absoluteFromEnvironment("XDG_STATE_HOME");
  if (state.empty()) state = homeDirectory() + "/.local/state";
  return state + "/" + host.bundleIdentifier.toStdString() + "/Library";
}

}  // namespace

const std::string& Paths::libraryDirectory() {
  static const auto* const path = new std::string(findLibraryDirectory());
  return *path;
}

int Paths::makeDirectories(const std::string& path) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    if (mkdir(part.c_str(), 0700) == 0) {
      // A file that is synced later would not outlast a loss of power without its directory.
      const Descriptor parent(
          open(part.substr(0, part.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (parent.isOpen()) fsync(parent.number());
    } else if (errno != EEXIST && end == std::string::npos) {
      return errno;
    }
    if (end == std::string::npos) break;
  }
  return 0;
}

}  // namespace orbiq
