// The keychain in files, shared by threads and processes, and tampered with.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orbiq/services/platform/files/AtomicFile.h"
#include "orbiq/services/platform/keychain/FileKeychain.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

KeychainQuery item(const std::string& data = "data", const String& group = nullptr) {
  return {.account = "account",
          .service = "service",
          .accessGroup = group,
          .valueData = data,
          .returnData = true};
}

/// Adds, changes and deletes one item for ever.
const RoleRegistration churns("churn", [](const std::vector<std::string>& arguments) -> int {
  FileKeychain keychain(arguments[0]);
  std::cout << "ready" << std::endl;
  for (;;) {
    keychain.add(item(std::string(5'000, 'a')));
    keychain.update(item(), {.valueData = std::string(6'000, 'b')});
    keychain.deleteMatching(item());
  }
});

class FileKeychainTest : public testing::Test {
 protected:
  /// All that stands in the directory but the lock.
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(place)) names.insert(entry.path().filename());
    names.erase("lock");
    return names;
  }

  const TemporaryDirectory directory;
  const std::string place = directory.path() / "above" / "keychain";
  FileKeychain keychain{place};
};

TEST_F(FileKeychainTest, KeepsItemsApartAndForTheUserAlone) {
  const KeychainQuery queries[]{
      item("1"),
      item("2", ""),
      item("3", "spare"),
      item("4", "a/../b\n%"),
      {.account = "account.service", .service = "", .valueData = "5", .returnData = true},
      {.account = nullptr, .service = "lock", .valueData = "6", .returnData = true},
      {.service = "binary", .valueData = std::string("\0\n\xFF", 3), .returnData = true},
  };
  for (const KeychainQuery& query : queries) {
    EXPECT_EQ(keychain.copyMatching(query).status, errSecItemNotFound);
    EXPECT_EQ(keychain.update(query, {.valueData = "no"}), errSecItemNotFound);
    EXPECT_EQ(keychain.deleteMatching(query), errSecItemNotFound);
    EXPECT_EQ(keychain.add(query), errSecSuccess);
    EXPECT_EQ(keychain.add(query), errSecDuplicateItem);
  }
  for (const std::string& name : files()) {
    EXPECT_EQ(fs::status(place + "/" + name).permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
  }
  EXPECT_EQ(fs::status(place).permissions(), fs::perms::owner_all);
  for (const KeychainQuery& query : queries) {
    EXPECT_EQ(FileKeychain(place).copyMatching(query).data, query.valueData);
    EXPECT_EQ(keychain.update(query, {.valueData = "new"}), errSecSuccess);
    EXPECT_EQ(keychain.update(query, {.valueData = std::string(70'000, 'x')}), errSecNotAvailable);
    EXPECT_EQ(keychain.copyMatching(query).data, "new");
    EXPECT_EQ(keychain.update(query, {.valueData = ""}), errSecSuccess);
    EXPECT_EQ(keychain.copyMatching(query).data, std::nullopt);
    EXPECT_EQ(keychain.deleteMatching(query), errSecSuccess);
  }
  EXPECT_EQ(files(), std::set<std::string>());
}

TEST_F(FileKeychainTest, WhatIsDamagedIsNeverMissing) {
  ASSERT_EQ(keychain.add(item()), errSecSuccess);
  const std::string path = place + "/" + *files().begin();
  const std::string sound = readFile(path, 1'000).value();
  const auto write = [&](const std::string& bytes) { std::ofstream(path) << bytes; };
  const std::function<void()> tampers[]{
      [&] { write(""); },
      [&] { write(sound.substr(0, sound.size() - 1)); },
      [&] { write(sound + "x"); },
      [&] { write(std::string(sound.size(), '\0')); },
      [&] { write(sound + std::string(70'000, 'x')); },
      [&] { fs::remove(path), fs::create_symlink("nowhere", path); },
      [&] { fs::remove(path), mkfifo(path.c_str(), 0600); },
  };
  for (const auto& tamper : tampers) {
    tamper();
    EXPECT_EQ(keychain.copyMatching(item()).status, errSecNotAvailable);
    EXPECT_EQ(keychain.update(item(), {.valueData = "new"}), errSecNotAvailable);
    EXPECT_EQ(keychain.add(item()), errSecDuplicateItem);
    EXPECT_EQ(keychain.deleteMatching(item()), errSecSuccess);
    EXPECT_EQ(keychain.add(item()), errSecSuccess);
    EXPECT_EQ(keychain.copyMatching(item()).data, "data");
  }
  fs::permissions(place, fs::perms::all);
  EXPECT_EQ(keychain.copyMatching(item()).data, "data");
  EXPECT_EQ(fs::status(place).permissions(), fs::perms::owner_all);

  fs::rename(place, place + ".moved");
  for (const auto& tamper :
       {std::function<void()>([&] { std::ofstream{place}; }),
        std::function<void()>([&] { fs::create_symlink("nowhere", place); })}) {
    tamper();
    EXPECT_EQ(keychain.copyMatching(item()).status, errSecNotAvailable);
    EXPECT_EQ(keychain.add(item()), errSecNotAvailable);
    EXPECT_EQ(keychain.update(item(), {}), errSecNotAvailable);
    EXPECT_EQ(keychain.deleteMatching(item()), errSecNotAvailable);
    fs::remove(place);
  }
}

TEST_F(FileKeychainTest, IsReadWhereNothingCanBeWritten) {
  ASSERT_EQ(keychain.add(item()), errSecSuccess);
  fs::permissions(place, fs::perms::owner_all | fs::perms::group_read);
  const char* const target = place.c_str();
  if (!enterNamespaces(CLONE_NEWNS) ||
      mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount(target, target, nullptr, MS_BIND, nullptr) != 0 ||
      mount("none", target, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
    GTEST_SKIP() << "no mount of its own: " << std::strerror(errno);
  }
  EXPECT_EQ(keychain.copyMatching(item()).data, "data");
  EXPECT_EQ(keychain.copyMatching(item("", "group")).status, errSecItemNotFound);
  EXPECT_EQ(keychain.add(item("", "group")), errSecNotAvailable);
  EXPECT_EQ(keychain.update(item(), {.valueData = "new"}), errSecNotAvailable);
  EXPECT_EQ(keychain.deleteMatching(item()), errSecNotAvailable);
}

TEST_F(FileKeychainTest, AChangeGivesUpOnAHolderOfTheLockThatDoesNotMove) {
  ASSERT_EQ(keychain.add(item()), errSecSuccess);
  FileKeychain impatient(place, std::chrono::milliseconds(0));
  {
    const Descriptor holder(open((place + "/lock").c_str(), O_RDWR));
    ASSERT_EQ(flock(holder.number(), LOCK_EX), 0);
    EXPECT_EQ(impatient.add(item("", "group")), errSecNotAvailable);
    EXPECT_EQ(impatient.update(item(), {.valueData = "new"}), errSecNotAvailable);
    EXPECT_EQ(impatient.deleteMatching(item()), errSecNotAvailable);
    EXPECT_EQ(impatient.copyMatching(item()).data, "data");
  }
  EXPECT_EQ(impatient.deleteMatching(item()), errSecSuccess);
}

TEST_F(FileKeychainTest, AReaderSeesWholeItemsWhoeverWritesAndIsKilled) {
  for (int round = 0; round < 5; ++round) {
    RoleProcess first("churn", {place});
    RoleProcess second("churn", {place});
    ASSERT_EQ(first.readLine(), "ready");
    ASSERT_EQ(second.readLine(), "ready");
    std::set<std::string> seen;
    while (seen.size() < 3) {
      const KeychainMatch match = keychain.copyMatching(item());
      ASSERT_TRUE(match.status == errSecSuccess || match.status == errSecItemNotFound)
          << match.status;
      const std::string data = match.data.value_or("none");
      ASSERT_TRUE(data == "none" || data == std::string(5'000, 'a') ||
                  data == std::string(6'000, 'b'));
      seen.insert(data);
    }
  }
  // What a killed writer leaves behind is in nobody's way.
  keychain.deleteMatching(item());
  std::ofstream(place + "/spare") << "left";
  EXPECT_EQ(keychain.add(item()), errSecSuccess);
  EXPECT_EQ(files().size(), 1U);
}

}  // namespace
}  // namespace orbiq::test
