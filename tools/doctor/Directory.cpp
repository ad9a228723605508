// Whether the application could keep its files where the library wants them.
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/host/LibraryDirectory.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

// A full queue and the spare beside it take less than one mebibyte.
constexpr std::uint64_t kEnoughBytes = std::uint64_t{4} << 20;
constexpr std::uint64_t kLeastBytes = std::uint64_t{64} << 10;

std::string nameOf(uid_t user) {
  const passwd* const entry = getpwuid(user);
  return entry != nullptr ? entry->pw_name : "user " + std::to_string(user);
}

std::string permissionsOf(const struct stat& status) {
  std::string text;
  for (int shift = 9; shift >= 0; shift -= 3) {
    text += static_cast<char>('0' + ((status.st_mode >> shift) & 7U));
  }
  return text;
}

/// The directory, or what there is of the way to it. With an error where that cannot be seen.
std::string existingPartOf(std::string path, struct stat& status, int& error) {
  while (stat(path.c_str(), &status) != 0) {
    error = errno;
    if ((error != ENOENT && error != ENOTDIR) || path.size() == 1) return path;
    path.resize(std::max<std::size_t>(path.rfind('/'), 1));
  }
  error = 0;
  return path;
}

/// After a disk error a file system may say that it can be written, and refuse it.
int tryToWrite(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  return !file.isOpen() && (errno == EROFS || errno == EIO) ? errno : 0;
}

void examineSpace(const std::string& path, Finding& finding) {
  struct statvfs space{};
  if (statvfs(path.c_str(), &space) != 0) return;
  const std::uint64_t bytes = std::uint64_t{space.f_bavail} * space.f_frsize;
  const std::string kibibytes = std::to_string(bytes >> 10U) + " KiB";
  if (bytes < kLeastBytes || (space.f_files > 0 && space.f_favail == 0)) {
    finding.fail("no-space",
                 "The file system has " + kibibytes + " and " + std::to_string(space.f_favail) +
                     " files left: the hits that wait cannot be saved.",
                 "Make room, or set the library directory elsewhere.");
  } else if (bytes < kEnoughBytes) {
    finding.warn("little-space", "The file system has only " + kibibytes + " left.", "Make room.");
  } else {
    finding.isFine("There is room: " + std::to_string(bytes >> 20U) + " MiB.");
  }
}

void examinePermissions(const std::string& path, const struct stat& status, bool isWhole,
                        Finding& finding) {
  const bool mayWrite = faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
  if (const int error = mayWrite ? tryToWrite(path) : errno; error != 0) {
    const bool isReadOnly = error == EROFS || error == EIO;
    finding.fail(isReadOnly ? "read-only-file-system" : "not-writable",
                 path + " cannot be written by " + nameOf(geteuid()) + ": " + causeOf(error) +
                     ". It belongs to " + nameOf(status.st_uid) + ", with permissions " +
                     permissionsOf(status) +
                     ". Hits are sent, but what waits is lost when the "
                     "process ends.",
                 isReadOnly ? "Set the library directory to a file system that can be written."
                            : "Give it to the application's user, or run the doctor as that user.");
    return;
  }
  if (isWhole && status.st_uid != geteuid()) {
    finding.warn(
        "other-owner",
        path + " belongs to " + nameOf(status.st_uid) + ", and this is " + nameOf(geteuid()) + ".",
        "Run the doctor as the application's user: what that one may do is not seen here.");
  }
  if (isWhole && (status.st_mode & 022U) != 0) {
    finding.warn("open-to-others",
                 path + " can be written by others (permissions " + permissionsOf(status) + ").",
                 "chmod 0700 " + path);
  }
}

}  // namespace

Finding examineDirectory(Context& context) {
  Finding finding;
  if (!context.isPlaceKnown()) {
    finding.skip("Which directory is not known: give --bundle-identifier or --library-directory.");
    return finding;
  }
  const std::string directory = libraryDirectory() + "/orbiqCache";
  struct stat status{};
  int error = 0;
  const std::string existing = existingPartOf(directory, status, error);
  if (error != 0) {
    finding.fail("not-readable", existing + " cannot be looked at: " + causeOf(error) + ".",
                 error == EACCES
                     ? "Give it to the application's user, or run the doctor as that user."
                     : "See whether its file system is still mounted.");
    return finding;
  }
  const bool isWhole = existing == directory;
  if (!S_ISDIR(status.st_mode)) {
    finding.fail("no-directory", existing + " is there and is no directory.",
                 "Move it away, or set the library directory elsewhere.");
    return finding;
  }
  finding.isFine("The requests are kept in " + directory +
                 (isWhole ? "." : ", which the library makes in " + existing + "."));
  examinePermissions(existing, status, isWhole, finding);
  examineSpace(existing, finding);
  return finding;
}

}  // namespace orbiq::doctor
