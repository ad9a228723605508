#include "orbiq/services/platform/files/Directories.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>

#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq {

int syncDirectoryOf(const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened.isOpen() && fsync(opened.number()) == 0 ? 0 : errno;
}

int makeDirectories(const std::string& path) {
  int failure = 0;
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    const bool isMade = mkdir(part.c_str(), 0700) == 0;
    if (isMade) {
      chmod(part.c_str(), 0700);  // whatever the host's umask has taken away
      // A file that is synced later would not outlast a loss of power without its directory.
      syncDirectoryOf(part);
    }
    // Nothing can be made below a part that could not be: its failure is the cause.
    if (isMade || errno == EEXIST) {
      failure = 0;
    } else if (failure == 0) {
      failure = errno;
    }
    if (end == std::string::npos) return failure;
  }
}

}  // namespace orbiq
