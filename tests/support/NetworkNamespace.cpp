#include "tests/support/NetworkNamespace.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
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

/// 0 if `ip` has done it. The command stands where only root looks for commands.
int runIp(const std::string& arguments) {
  return std::system(("export PATH=$PATH:/usr/sbin; ip " + arguments).c_str());
}

bool isIPv6(const std::string& text) { return text.find(':') != std::string::npos; }

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

std::unique_ptr<NetworkNamespace> NetworkNamespace::enter(std::string& refusal) {
  if (!enterNamespaces(CLONE_NEWNET)) {
    refusal = std::string("no network namespace of one's own: ") + std::strerror(errno);
    return nullptr;
  }
  if (runIp("link set lo up") != 0) {
    refusal = "the command ip cannot be used";
    return nullptr;
  }
  return std::unique_ptr<NetworkNamespace>(new NetworkNamespace);
}

void NetworkNamespace::ip(const std::string& arguments) {
  ASSERT_EQ(runIp(arguments), 0) << "ip " << arguments;
}

void NetworkNamespace::addVethPair(const std::string& name, const std::string& peer) {
  ip("link add name " + name + " type veth peer name " + peer);
}

void NetworkNamespace::setUp(const std::string& link) { ip("link set dev " + link + " up"); }

void NetworkNamespace::setDown(const std::string& link) { ip("link set dev " + link + " down"); }

void NetworkNamespace::addAddress(const std::string& link, const std::string& address) {
  ip("address add " + address + " dev " + link + (isIPv6(address) ? " nodad" : ""));
}

void NetworkNamespace::addDefaultRoute(const std::string& way) {
  ip((isIPv6(way) ? "-6 route add default " : "route add default ") + way);
}

void NetworkNamespace::removeDefaultRoute(const std::string& way) {
  ip((isIPv6(way) ? "-6 route del default " : "route del default ") + way);
}

}  // namespace orbiq::test
