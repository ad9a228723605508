#include "tests/support/NetworkNamespace.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace orbiq::test {
namespace {

bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  return file.good();
}

/// The command stands where only root looks for commands.
const std::string kIp = "PATH=$PATH:/usr/sbin ip ";

}  // namespace

bool enterNamespaces(int kinds) {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(user == 0 ? kinds : CLONE_NEWUSER | kinds) != 0) return false;
  const bool isRoot =
      user == 0 || (writeFile("/proc/self/setgroups", "deny") &&
                    writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
                    writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1"));
  if (!isRoot || (kinds & CLONE_NEWNS) == 0) return isRoot;
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

std::string enterNetwork() {
  if (!enterNamespaces(CLONE_NEWNET)) {
    return std::string("no network namespace of one's own: ") + std::strerror(errno);
  }
  const bool isUp = std::system((kIp + "link set lo up").c_str()) == 0;
  return isUp ? "" : "the command ip cannot be used";
}

void ip(const std::string& lines) {
  const std::string family = lines.starts_with("-6 ") ? "-6 " : "";
  std::FILE* const command = popen((kIp + family + "-batch -").c_str(), "w");
  ASSERT_NE(command, nullptr);
  std::fputs((lines.substr(family.size()) + "\n").c_str(), command);
  ASSERT_EQ(pclose(command), 0) << "ip " << lines.substr(0, 1'000);
}

}  // namespace orbiq::test
