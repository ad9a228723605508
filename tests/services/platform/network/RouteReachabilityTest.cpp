#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/loop/SerialQueue.h"
#include "orbiq/services/platform/network/NetworkReachability.h"
#include "tests/support/CLibrary.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/RunOn.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

using namespace std::chrono_literals;
using Target = std::shared_ptr<NetworkReachability>;
/// The letters of what was delivered. To be looked at when the queue is at rest.
using Deliveries = std::shared_ptr<std::string>;

/// Flags as one letter: not reachable, reachable, on a network of this machine, over a mobile
/// network, both, this machine.
char letterOf(std::uint32_t flags) {
  constexpr std::uint32_t kValues[] = {0, 2, 131074, 262146, 393218, 65538};
  return "-RDWBL!"[std::find(std::begin(kValues), std::end(kValues), flags) - kValues];
}
char letterOf(const Target& target) {
  std::uint32_t flags = 0;
  return target->getFlags(flags) ? letterOf(flags) : '?';
}
void take(NetworkReachability&, std::uint32_t flags, void* info) {
  *static_cast<std::string*>(info) += letterOf(flags);
}

/// Two links and their far ends. No default route, and no addresses that come by themselves, and
/// with them reports.
constexpr char kLinks[] = R"(
link add v0 type veth peer v1
link add wwan0 type veth peer wwan1
link set v0 addrgenmode none up
link set v1 addrgenmode none up
link set wwan0 addrgenmode none up
link set wwan1 addrgenmode none up
address add 10.0.0.1/24 dev v0
address add 10.0.1.1/24 dev wwan0
address add fd00::1/64 dev v0 nodad
address add fd01::1/64 dev wwan0 nodad
address add fe80::8/64 dev v0 nodad
address add fe80::9/64 dev wwan0 nodad
)";

/// That network; the loop belongs to the test.
class RouteReachabilityTest : public testing::Test {
 protected:
  void SetUp() override {
    loop = MainLoop::mainLoop().adopt();
    ASSERT_GE(loop, 0);
    setNetworkUp();
  }
  /// A fresh network, and a fresh source in it.
  void setNetworkUp() {
    if (const std::string refusal = enterNetwork(); !refusal.empty()) GTEST_SKIP() << refusal;
    source = makeRouteReachabilitySource();
    ASSERT_EQ(source->failure(), "");
    fence = address("10.9.9.9");
    fenced = watch(fence);
    internet = address("0.0.0.0");
    ip(kLinks);
    awaitRead(gate = address("10.0.0.2"), 'D');
    awaitRead(address("10.0.1.2"), 'B');
    for (const char* own : {"fd00::1", "fd01::1", "fe80::8%v0", "fe80::9%wwan0"}) {
      awaitRead(address(own), 'L');
    }
  }

  Target address(const std::string& text) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* parsed = nullptr;
    EXPECT_EQ(getaddrinfo(text.c_str(), nullptr, &hints, &parsed), 0) << text;
    Target target = source->createWithAddress(parsed->ai_addr);
    freeaddrinfo(parsed);
    return target;
  }
  Deliveries watch(const Target& target) {
    auto deliveries = std::make_shared<std::string>();
    EXPECT_TRUE(target->setCallback(take, {0, deliveries}));
    EXPECT_TRUE(target->setDispatchQueue(queue));
    return deliveries;
  }

  void await(const std::function<bool()>& isFulfilled) {
    for (pollfd waited{loop, POLLIN, 0}; !isFulfilled(); ++turns) {
      poll(&waited, 1, -1);
      MainLoop::mainLoop().runPending();
      runOn(*queue, [] {});
    }
  }
  /// Whatever the kernel reports wakes the loop.
  void awaitRead(const Target& target, char letter) {
    await([&] { return letterOf(target) == letter; });
  }
  /// Returns when the loop has looked at what was done until now, and delivered.
  void awaitLook() {
    const bool isUp = fenced->ends_with('L');
    ip(std::string("address ") + (isUp ? "del" : "add") + " 10.9.9.9/32 dev lo");
    await([&] { return isUp != fenced->ends_with('L'); });
  }
  void setGate(bool isUp) {
    ip(std::string("route ") + (isUp ? "add" : "del") + " default via 10.0.0.2");
  }

  int loop = -1;
  int turns = 0;
  std::shared_ptr<NetworkReachabilitySource> source;
  const std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("deliveries");
  Target internet;
  Target gate;
  Target fence;
  Deliveries fenced;
};

TEST_F(RouteReachabilityTest, TargetsAreWhereTheKernelSendsThisProcess) {
  const struct {
    /// Letters, each before the addresses of which it is expected.
    const char* expected;
    const char* commands;
    /// A far end that is taken down.
    const char* down = nullptr;
  } cases[] = {
      {"L 127.0.0.1 ::1 10.0.0.1 D 10.0.0.77 ::ffff:10.0.0.77 fd00::77 fe80::77%v0 "
       "B fe80::77%wwan0 - 0.0.0.0 :: 203.0.113.1 2001:db8::1 169.254.0.0",
       ""},
      {"R 0.0.0.0 :: 203.0.113.1 2001:db8::1 169.254.7.7 - 198.51.100.1 169.254.0.0 W 192.0.2.1",
       "route add default via 10.0.0.2\nroute add default via fd00::2\n"
       "route add blackhole 198.51.100.0/24\nroute add 192.0.2.0/24 via 10.0.1.2"},
      // The local network is reached without a gateway, and others not from its addresses.
      {"D 169.254.0.0 - 203.0.113.1",
       "route add default via 10.0.0.2\naddress add 169.254.9.9/16 dev v0\n"
       "address del 10.0.0.1/24 dev v0"},
      {"R 0.0.0.0", "route add default dev v0"},
      {"R 0.0.0.0", "route add 0.0.0.0/1 via 10.0.0.2"},
      {"R 0.0.0.0", "route add 128.0.0.0/1 via 10.0.0.2"},
      {"R 0.0.0.0 ::", "route add 2000::/3 via fd00::2"},
      // Rules, and who they are for.
      {"- 0.0.0.0", "route add default via 10.0.0.2 table 7"},
      {"R 0.0.0.0",
       "route add default via 10.0.0.2 table 7\nrule add ipproto 6 dport 443 lookup 7"},
      {"- 0.0.0.0", "route add default via 10.0.0.2\nrule add uidrange 0-0 blackhole"},
      // The preferred way counts, but one usable hop of it is enough.
      {"- 0.0.0.0", "route add default via 10.0.0.2\nroute add default via 10.0.1.2 metric 9",
       "v1"},
      {"W 0.0.0.0", "route add default nexthop via 10.0.0.2 weight 255 nexthop via 10.0.1.2", "v1"},
      {"W 0.0.0.0", "route add default nexthop via fd00::2 weight 255 nexthop via fd01::2", "v1"},
      {"- 0.0.0.0", "route add default nexthop dev v0 nexthop via 10.0.0.3", "v1"},
      // No source from which an answer would come back, and links that do not carry.
      {"- 0.0.0.0",
       "address flush dev v0\naddress flush dev wwan0\naddress add fe80::7/64 dev v0 nodad\n"
       "route add default via fe80::2 dev v0"},
      {"- 0.0.0.0", "route add default via 10.0.0.2\nlink set v0 state dormant"},
      {"- 0.0.0.0", "route add local default dev lo"},
      {"- 0.0.0.0", "route add default dev lo"},
  };
  for (const auto& [expected, commands, down] : cases) {
    setNetworkUp();
    ip(commands);
    if (down) {
      ip(std::string("link set ") + down + " down");
      awaitRead(gate, '-');
    }
    char letter = '!';
    std::istringstream words(expected);
    for (std::string word; words >> word;) {
      if (word.size() == 1) letter = word[0];
      EXPECT_TRUE(word.size() == 1 || letterOf(address(word)) == letter)
          << word << " with " << commands;
    }
  }
  const sockaddr_un other{AF_UNIX, ""};
  EXPECT_EQ(source->createWithAddress(nullptr), nullptr);
  EXPECT_EQ(source->createWithAddress(reinterpret_cast<const sockaddr*>(&other)), nullptr);
  EXPECT_EQ(source->createWithName(""), nullptr);
}

TEST_F(RouteReachabilityTest, EachChangeIsDeliveredOnce) {
  setGate(true);
  const auto deliveries = watch(internet);
  ip("address add 10.0.0.5/24 dev v0\nroute add default via fd00::2\n"
     "route add default via 10.0.1.2 metric 10\naddress del 10.0.0.5/24 dev v0");
  awaitLook();
  EXPECT_EQ(*deliveries, "");

  // Each change alone, as no other kind of report is to wake the loop.
  std::string expected;
  const std::pair<const char*, char> changes[] = {
      {"route del default via 10.0.0.2", 'W'},
      {"rule add prohibit", 'R'},  // by IPv6
      {"-6 rule add prohibit", '-'},
      {"rule del prohibit", 'W'},
      {"link set wwan1 down", '-'},
      {"route add default via 10.0.0.2", 'R'},
      {"link set v1 down", '-'},
      {"link set wwan1 up", '-'},  // which is not preferred
      {"", 'W'},
      {"link set wwan0 down", '-'},  // its route goes without a report of its own
  };
  for (const auto& [change, letter] : changes) {
    if (*change != '\0') {
      ip(change);
    } else {
      awaitRead(address("10.0.1.2"), 'B');
      std::ofstream("/proc/sys/net/ipv4/conf/all/ignore_routes_with_linkdown") << 1;
    }
    if (!expected.ends_with(letter)) expected += letter;
    await([&] { return deliveries->size() == expected.size(); });
    EXPECT_EQ(*deliveries, expected) << change;
  }
}

TEST_F(RouteReachabilityTest, WhoSawTheNetworkAwayIsToldOfItsReturn) {
  const std::pair<const char*, const char*> cases[] = {
      {"up start queue down up look", ""},
      {"up start queue down read up read look", "R"},
      {"up start queue stop down read up start start look", "R"},
      // Registering delivers nothing by itself, nor does anything come after the end.
      {"up read start queue look", ""},
      {"start queue stop up look", ""},
      {"start queue up look stop down start look", "R-"},
      // Without a queue or a receiver.
      {"start up look queue look", "R"},
      {"start up look down look queue look", ""},
      {"start queue forget up look", ""},
      // What still waits on the queue is dropped with its registration, and made up for.
      {"start queue hold up look stop release look", ""},
      {"start queue hold up look no-queue release queue look", "R"},
      {"start queue hold up look down read up look release look", "R"},
      {"start queue hold up look down look release look", "R-"},
  };
  for (const auto& [script, expected] : cases) {
    internet = address("0.0.0.0");
    auto deliveries = std::make_shared<std::string>();
    const auto slow = std::make_shared<SerialQueue>("slow");
    std::promise<void> released;
    bool isHeld = false;
    bool isUp = false;
    const std::map<std::string, std::function<void()>> steps{
        {"start", [&] { internet->setCallback(take, {0, deliveries}); }},
        {"stop", [&] { internet->setCallback(nullptr, {}); }},
        {"queue", [&] { internet->setDispatchQueue(slow); }},
        {"no-queue", [&] { internet->setDispatchQueue(nullptr); }},
        {"forget", [&] { deliveries = std::make_shared<std::string>(); }},
        {"up", [&] { setGate(isUp = true); }},
        {"down", [&] { setGate(isUp = false); }},
        {"read", [&, &text = script] { EXPECT_EQ(letterOf(internet), isUp ? 'R' : '-') << text; }},
        {"look", [&] { awaitLook(); }},
        {"hold", [&] { slow->async([&] { released.get_future().wait(); }), isHeld = true; }},
        {"release", [&] { released.set_value(), isHeld = false; }},
    };
    std::istringstream words(script);
    for (std::string word; words >> word;) {
      steps.at(word)();
      if (!isHeld) runOn(*slow, [] {});
    }
    EXPECT_EQ(*deliveries, expected) << script;
    if (isUp) setGate(false);
  }
}

TEST_F(RouteReachabilityTest, ReportsThatKeepComingAreLookedAtTenTimesASecond) {
  setGate(true);
  const auto deliveries = watch(internet);
  awaitLook();
  turns = 0;
  const auto begin = std::chrono::steady_clock::now();
  // More than the socket holds, and the change that counts is the last.
  std::string changes;
  for (int i = 0; i < 4000; ++i) {
    changes += "route replace 203.0.113.0/24 metric 1" + std::to_string(i) + " dev v0\n";
  }
  const std::jthread changing([&] { ip(changes + "route del default via 10.0.0.2\n"); });
  await([&] { return !deliveries->empty(); });
  EXPECT_EQ(*deliveries, "-");
  // A look takes two turns, as its time has to come.
  EXPECT_LE(turns, 4 + 2 * ((std::chrono::steady_clock::now() - begin) / 100ms));
}

TEST_F(RouteReachabilityTest, AnExpiringRouteEndsBeforeItsReport) {
  const auto deliveries = watch(internet);
  const Descriptor reports(socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK, NETLINK_ROUTE));
  const sockaddr_nl group{AF_NETLINK, 0, 0, RTMGRP_IPV6_ROUTE};
  ASSERT_EQ(bind(reports.number(), reinterpret_cast<const sockaddr*>(&group), sizeof group), 0);
  ip("route add default via fd00::2 expires 2");
  await([&] { return deliveries->size() == 2; });
  EXPECT_EQ(*deliveries, "R-");
  for (nlmsghdr report{}; recv(reports.number(), &report, sizeof report, 0) > 0;) {
    EXPECT_NE(report.nlmsg_type, RTM_DELROUTE);
  }
}

TEST_F(RouteReachabilityTest, OnlyAnErrorThatSaysSoMeansThatThereIsNoWay) {
  for (const int error : {ENETUNREACH, EHOSTUNREACH, EACCES, EINVAL, ENODEV, EOPNOTSUPP}) {
    NetlinkFaults::answers = error;
    EXPECT_EQ(letterOf(address("10.0.0.2")), '-') << error;
  }
  for (const int error : {ENOBUFS, ENOMEM, EINTR, EMFILE, EPERM}) {
    NetlinkFaults::answers = error;
    EXPECT_EQ(letterOf(gate), 'D') << error;                 // as before
    EXPECT_EQ(letterOf(address("10.0.0.2")), 'R') << error;  // as if nobody could be asked
  }
  // Then the kernel is asked again, without a report.
  NetlinkFaults::answers = 0;
  setGate(true);
  const auto deliveries = watch(internet);
  awaitLook();
  NetlinkFaults::count = 0;
  NetlinkFaults::answers = ENOBUFS;
  setGate(false);
  await([] { return NetlinkFaults::count > 0; });
  EXPECT_EQ(*deliveries, "");
  NetlinkFaults::answers = 0;
  await([&] { return !deliveries->empty(); });
  EXPECT_EQ(*deliveries, "-");
}

TEST_F(RouteReachabilityTest, AMobileLinkIsToldByTheDriver) {
  if (!enterNamespaces(CLONE_NEWNS) || mount("none", "/sys/class/net", "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "sysfs cannot be replaced";
  }
  std::filesystem::create_directory("/sys/class/net/v0");
  // Of another network's link of that name, and of ours.
  for (const auto& [more, letter] : {std::pair{100U, 'D'}, {0U, 'B'}}) {
    std::ofstream("/sys/class/net/v0/uevent")
        << "DEVTYPE=wwan\nIFINDEX=" << if_nametoindex("v0") + more << "\n";
    source = makeRouteReachabilitySource();
    EXPECT_EQ(letterOf(address("10.0.0.2")), letter);
  }
}

TEST_F(RouteReachabilityTest, NamesAreResolvedAndResolvedAgain) {
  // The names of this machine, as the test writes them.
  const TemporaryDirectory directory;
  const std::string hosts = directory.path() / "hosts";
  const auto write = [&](const char* lines) { std::ofstream(hosts) << lines; };
  write("127.0.0.1 localhost\n");
  if (!enterNamespaces(CLONE_NEWNS) ||
      mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
    GTEST_SKIP() << "the table of hosts cannot be replaced";
  }
  std::size_t lookUps = nameLookupCount();
  const auto areLookedUp = [&] { return nameLookupCount() > lookUps; };
  const Target later = source->createWithName("later.test");
  const auto deliveries = watch(later);
  await(areLookedUp);
  // By itself, without a reader and on an unchanged network.
  write("203.0.113.1 later.test\n10.0.0.9 later.test\n");
  await([&] { return !deliveries->empty(); });
  EXPECT_EQ(*deliveries, "D");
  // On another network it may have another address.
  write("10.0.1.9 later.test\n");
  ip("route add default via 10.0.1.2");
  await([&] { return *deliveries == "DB"; });
  // But at most once a second.
  lookUps = nameLookupCount();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 40; ++i) {
    ip(std::string("route ") + (i % 2 ? "add" : "del") + " default via 10.0.1.2");
    letterOf(later);
  }
  const auto passed = (std::chrono::steady_clock::now() - begin) / 1s;
  EXPECT_LE(nameLookupCount(), lookUps + 2 + static_cast<unsigned long>(passed));
  // The addresses stay known where the name is not found any more.
  write("");
  lookUps = nameLookupCount();
  ip("route del default via 10.0.1.2");
  await(areLookedUp);
  awaitLook();
  EXPECT_EQ(letterOf(later), 'B');
}

TEST_F(RouteReachabilityTest, TheResolverTakesNoStandardNumber) {
  close(STDIN_FILENO);
  auto hanging = std::make_unique<HangingLookup>();
  const Target target = source->createWithName(HangingLookup::kName);
  const auto deliveries = watch(target);
  hanging->await();
  EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0);
  hanging.reset();
  await([] { return fcntl(STDIN_FILENO, F_GETFD) < 0; });
}

TEST_F(RouteReachabilityTest, WhatCannotBeOpenedForNowIsOpenedLater) {
  source = makeRouteReachabilitySource();
  for (const int error : {EMFILE, ENFILE, ENOMEM, ENOBUFS}) {
    NetlinkFaults::opening = error;
    EXPECT_EQ(source->failure(), "") << error;
  }
  const Target target = address("0.0.0.0");
  const auto deliveries = watch(target);
  EXPECT_EQ(letterOf(target), 'R');
  NetlinkFaults::opening = 0;
  EXPECT_EQ(source->failure(), "");
  await([&] { return !deliveries->empty(); });
  EXPECT_EQ(*deliveries, "-");

  // In some sandboxes there is no netlink.
  NetlinkFaults::opening = EACCES;
  source = makeRouteReachabilitySource();
  EXPECT_EQ(source->failure(), "the netlink sockets cannot be opened: Permission denied");
  for (const Target& every : {address("10.0.0.1"), source->createWithName("name.test")}) {
    watch(every);
    EXPECT_EQ(letterOf(every), 'R');
  }
}

TEST_F(RouteReachabilityTest, AForkedChildKnowsNothingAndTakesNothing) {
  if (fork() == 0) _exit(letterOf(internet) != '?' || internet->setCallback(nullptr, {}));
  int status = -1;
  wait(&status);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace orbiq::test
