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
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orbiq/services/platform/files/AtomicFile.h"
#include "orbiq/services/platform/keychain/FileKeychain.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/NothingAllowed.h"
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
  static void expectNoChange(FileKeychain& keychain) {
    EXPECT_EQ(keychain.add(item("", "group")), errSecNotAvailable);
    EXPECT_EQ(keychain.update(item(), {.valueData = "new"}), errSecNotAvailable);
    EXPECT_EQ(keychain.deleteMatching(item()), errSecNotAvailable);
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
      item("4", "a/../B\n%"),
      {.account = "account.service", .service = "", .valueData = "5", .returnData = true},
      {.account = nullptr,
       .service = "lock",
       .valueData = std::string("\0\n\xFF", 3),
       .returnData = true},
  };
  for (const KeychainQuery& query : queries) {
    EXPECT_EQ(keychain.copyMatching(query).status, errSecItemNotFound);
    EXPECT_EQ(keychain.update(query, {.valueData = "no"}), errSecItemNotFound);
    EXPECT_EQ(keychain.deleteMatching(query), errSecItemNotFound);
    EXPECT_EQ(keychain.add(query), errSecSuccess);
    EXPECT_EQ(keychain.add(query), errSecDuplicateItem);
  }
  // As earlier versions named it.
  EXPECT_TRUE(files().contains("item0.account.service.a%2F%2E%2E%2F%42%0A%25"));
  for (const std::string& name : files()) {
    EXPECT_EQ(fs::status(place + "/" + name).permissions(), fs::perms(0600));
  }
  EXPECT_EQ(fs::status(place).permissions(), fs::perms::owner_all);
  for (const KeychainQuery& query : queries) {
    EXPECT_EQ(FileKeychain(place).copyMatching(query).data, query.valueData);
    EXPECT_EQ(keychain.update(query, {.valueData = "new"}), errSecSuccess);
    EXPECT_EQ(keychain.update(query, {.valueData = std::string(70'000, 'x')}), errSecNotAvailable);
    EXPECT_EQ(keychain.copyMatching(query).data, "new");
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
  fs::create_symlink("nowhere", place);
  EXPECT_EQ(keychain.copyMatching(item()).status, errSecNotAvailable);
  expectNoChange(keychain);
}

TEST_F(FileKeychainTest, IsReadWhereNothingCanBeWritten) {
  ASSERT_EQ(keychain.add(item()), errSecSuccess);
  fs::permissions(place, fs::perms::owner_all | fs::perms::group_read);
  const char* const target = place.c_str();
  if (!enterNamespaces(CLONE_NEWNS) || mount(target, target, nullptr, MS_BIND, nullptr) != 0 ||
      mount("none", target, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
    GTEST_SKIP() << "no mount of its own: " << std::strerror(errno);
  }
  EXPECT_EQ(keychain.copyMatching(item()).data, "data");
  EXPECT_EQ(keychain.copyMatching(item("", "group")).status, errSecItemNotFound);
  expectNoChange(keychain);
}

TEST_F(FileKeychainTest, ALimitOfFileSizesRefusesAnItemAndEndsNobody) {
  const NothingAllowed inFiles(RLIMIT_FSIZE);
  EXPECT_EQ(keychain.add(item()), errSecNotAvailable);
}

TEST_F(FileKeychainTest, AChangeGivesUpOnAHolderOfTheLockThatDoesNotMove) {
  ASSERT_EQ(keychain.add(item()), errSecSuccess);
  FileKeychain impatient(place, std::chrono::milliseconds(0));
  {
    const Descriptor holder(open((place + "/lock").c_str(), O_RDWR));
    ASSERT_EQ(flock(holder.number(), LOCK_EX), 0);
    expectNoChange(impatient);
    EXPECT_EQ(impatient.copyMatching(item()).data, "data");
  }
  EXPECT_EQ(impatient.deleteMatching(item()), errSecSuccess);
}

TEST_F(FileKeychainTest, AReaderSeesWholeItemsWhoeverWritesAndIsKilled) {
  const std::set<std::string> whole{"none", std::string(5'000, 'a'), std::string(6'000, 'b')};
  for (int round = 0; round < 5; ++round) {
    RoleProcess first("churn", {place});
    RoleProcess second("churn", {place});
    for (std::set<std::string> seen; seen.size() < whole.size();) {
      const KeychainMatch match = keychain.copyMatching(item());
      ASSERT_NE(match.status, errSecNotAvailable);
      ASSERT_TRUE(whole.contains(*seen.insert(match.data.value_or("none")).first));
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
