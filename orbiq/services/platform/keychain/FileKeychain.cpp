#include "orbiq/services/platform/keychain/FileKeychain.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "orbiq/services/platform/files/BriefLock.h"
#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/files/Directories.h"
#include "orbiq/services/platform/text/Utf8.h"
#include "orbiq/services/platform/threads/WriteSignalsHeld.h"

namespace orbiq {
namespace {

constexpr std::size_t kSizeLimit = 65'536;
// Names of items begin otherwise.
constexpr const char* kLockName = "lock";
constexpr const char* kSpareName = "spare";

/// An item's file. What is neither a small letter nor a digit nor "_" is escaped, so that different
/// items never have one name, even where the file system takes capitals and small letters for the
/// same.
std::string nameOf(const KeychainQuery& query) {
  std::string name = "item" + std::to_string(query.itemClass);
  const auto isPlain = [](char character) {
    return isLowerCaseOrDigit(character) || character == '_';
  };
  const auto add = [&](const String& part) {
    appendEscaped(name.append("."), part.view(), isPlain);
  };
  add(query.account);
  add(query.service);
  if (!query.accessGroup.isNull()) add(query.accessGroup);
  return name;
}

/// The first line of a file: what it is, and a sum (FNV-1a) over the data behind it, since a disk
/// that lost power may hand back a file of the right length and the wrong bytes.
std::string headerOf(std::string_view data) {
  std::uint64_t sum = 0xCBF29CE484222325;
  for (const char character : data) {
    sum = (sum ^ static_cast<unsigned char>(character)) * 0x100000001B3;
  }
  char line[48];
  std::snprintf(line, sizeof line, "orbiq keychain item 1 %016llx\n",
                static_cast<unsigned long long>(sum));
  return line;
}

/// The data of an item's file, or no value if it is damaged.
std::optional<std::string> decoded(std::string_view bytes) {
  const std::size_t headerEnd = bytes.find('\n') + 1;
  const std::string_view data = bytes.substr(headerEnd);
  if (bytes.substr(0, headerEnd) != headerOf(data)) return std::nullopt;
  return std::string(data);
}

/// The store's directory, if it is ours alone or can be made so. `errSecItemNotFound`: nothing has
/// that name.
KeychainStatus openDirectory(const std::string& path, Descriptor& directory) {
  directory = Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory.isOpen()) return errno == ENOENT ? errSecItemNotFound : errSecNotAvailable;
  struct stat found{};
  if (fstat(directory.number(), &found) != 0 || found.st_uid != geteuid()) {
    return errSecNotAvailable;
  }
  // What cannot be written holds what it held, whoever may look into it.
  const bool isClosed = (found.st_mode & 0777) == 0700 || fchmod(directory.number(), 0700) == 0;
  return isClosed || errno == EROFS ? errSecSuccess : errSecNotAvailable;
}

/// Reads an item's file. `errSecItemNotFound`: nothing at all has that name.
KeychainStatus readItem(const Descriptor& directory, const std::string& name, std::string& data) {
  const Descriptor file(
      openat(directory.number(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.isOpen()) return errno == ENOENT ? errSecItemNotFound : errSecNotAvailable;
  const std::optional<std::string> bytes = readAll(file, kSizeLimit);
  std::optional<std::string> found = bytes ? decoded(*bytes) : std::nullopt;
  if (!found) return errSecNotAvailable;
  data = *std::move(found);
  return errSecSuccess;
}

/// Makes the spare file, with the item in it, and syncs it.
bool writeSpare(const Descriptor& directory, std::string_view data) {
  const Descriptor file = createFile(directory.number(), kSpareName);
  const std::string bytes = headerOf(data).append(data);
  if (!file.isOpen() || bytes.size() > kSizeLimit) return false;
  const auto write = [&] {
    const WriteSignalsHeld held;
    return writeAll(file, bytes);
  };
  return write() == 0 && fsync(file.number()) == 0;
}

/// Makes the spare file an item's new file.
KeychainStatus addSpareAs(const Descriptor& directory, const std::string& name) {
  // A link takes the place of nothing, even where others do not keep to the lock. Not every file
  // system has links, or the renaming that replaces nothing.
  const int number = directory.number();
  const char* const file = name.c_str();
  if (linkat(number, kSpareName, number, file, 0) == 0 ||
      (errno != EEXIST && renameat2(number, kSpareName, number, file, RENAME_NOREPLACE) == 0) ||
      ((errno == EINVAL || errno == ENOSYS) &&
       faccessat(number, file, F_OK, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT &&
       renameat(number, kSpareName, number, file) == 0)) {
    return errSecSuccess;
  }
  return errno == EEXIST ? errSecDuplicateItem : errSecNotAvailable;
}

}  // namespace

FileKeychain::FileKeychain(std::string directory, std::chrono::milliseconds lockLimit)
    : _directory(std::move(directory)), _lockLimit(lockLimit) {}

KeychainMatch FileKeychain::copyMatching(const KeychainQuery& query) try {
  KeychainMatch match;
  Descriptor directory;
  std::string data;
  match.status = openDirectory(_directory, directory);
  if (match.status == errSecSuccess) match.status = readItem(directory, nameOf(query), data);
  if (query.returnData && !data.empty()) match.data = std::move(data);
  return match;
} catch (const std::bad_alloc&) {
  return {};
}

/// Calls `operation` with the directory and the item's name, alone among threads and processes, and
/// syncs what it did with success.
template <class Operation>
KeychainStatus FileKeychain::change(const KeychainQuery& query, bool makesDirectory,
                                    const Operation& operation) const try {
  if (makesDirectory && makeDirectories(_directory) != 0) return errSecNotAvailable;
  Descriptor directory;
  KeychainStatus status = openDirectory(_directory, directory);
  if (status != errSecSuccess) return makesDirectory ? errSecNotAvailable : status;
  const BriefLock lock(directory.number(), kLockName, _lockLimit);
  if (!lock.isHeld()) return errSecNotAvailable;
  status = operation(directory, nameOf(query));
  unlinkat(directory.number(), kSpareName, 0);
  if (status != errSecSuccess) return status;
  // Some file systems cannot do that to a directory, and say so by EINVAL.
  const bool isSynced = fsync(directory.number()) == 0 || errno == EINVAL;
  return isSynced ? errSecSuccess : errSecNotAvailable;
} catch (const std::bad_alloc&) {
  return errSecNotAvailable;
}

KeychainStatus FileKeychain::add(const KeychainQuery& query) {
  return change(query, true, [&](const Descriptor& directory, const std::string& name) {
    return writeSpare(directory, query.valueData.value_or("")) ? addSpareAs(directory, name)
                                                               : errSecNotAvailable;
  });
}

KeychainStatus FileKeychain::update(const KeychainQuery& query, const KeychainAttributes& changes) {
  return change(query, false, [&](const Descriptor& directory, const std::string& name) {
    std::string data;
    const KeychainStatus status = readItem(directory, name, data);
    if (status != errSecSuccess || !changes.valueData) return status;
    const int number = directory.number();
    const bool isDone = writeSpare(directory, *changes.valueData) &&
                        renameat(number, kSpareName, number, name.c_str()) == 0;
    return isDone ? errSecSuccess : errSecNotAvailable;
  });
}

KeychainStatus FileKeychain::deleteMatching(const KeychainQuery& query) {
  return change(query, false, [](const Descriptor& directory, const std::string& name) {
    unlinkat(directory.number(), kSpareName, 0);  // may be the same item, of a killed writer
    if (unlinkat(directory.number(), name.c_str(), 0) == 0) return errSecSuccess;
    return errno == ENOENT ? errSecItemNotFound : errSecNotAvailable;
  });
}

}  // namespace orbiq
