#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/loop/SerialQueue.h"
#include "orbiq/services/platform/network/NetworkReachability.h"
#include "tests/support/NameLookups.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

// What the kernel says instead of opening a netlink socket, and of answering for a route.
std::atomic<int> socketError = 0;
std::atomic<int> answerError = 0;
std::atomic<int> falsified = 0;

}  // namespace

// These take the C library's place for the whole program.
#define ORBIQ_REPLACES extern "C" __attribute__((visibility("default")))

ORBIQ_REPLACES int socket(int domain, int type, int protocol) noexcept {
  errno = domain == AF_NETLINK ? socketError.load() : 0;
  return errno != 0 ? -1 : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}
ORBIQ_REPLACES ssize_t recv(int socket, void* buffer, std::size_t size, int flags) {
  const ssize_t count = recvfrom(socket, buffer, size, flags, nullptr, nullptr);
  struct {
    nlmsghdr header;
    nlmsgerr error;
  } answer{};
  if (answerError == 0 || count < static_cast<ssize_t>(sizeof answer)) return count;
  std::memcpy(&answer, buffer, sizeof answer);
  answer.header.nlmsg_type = NLMSG_ERROR;
  answer.header.nlmsg_len = sizeof answer;
  answer.error.error = -answerError;
  std::memcpy(buffer, &answer, sizeof answer);
  ++falsified;
  return sizeof answer;
}

namespace orbiq::test {
namespace {

using namespace std::chrono_literals;
using Target = std::shared_ptr<NetworkReachability>;

/// Flags as one letter: not reachable, reachable, on a network of this machine, over a mobile
/// network, both, this machine.
char letterOf(std::uint32_t flags) {
  constexpr std::uint32_t kValues[] = {0, 2, 131074, 262146, 393218, 65538};
  return "-RDWBL!"[std::find(std::begin(kValues), std::end(kValues), flags) - kValues];
}
char read(const Target& target) {
  std::uint32_t flags = 0;
  return target->getFlags(flags) ? letterOf(flags) : '?';
}

/// The letters of what was delivered. To be looked at when the queue is at rest.
using Deliveries = std::shared_ptr<std::string>;
void take(NetworkReachability&, std::uint32_t flags, void* info) {
  *static_cast<std::string*>(info) += letterOf(flags);
}

/// Two links and their far ends. No default route, and no addresses that come by themselves, and
/// with them reports.
constexpr char kLinks[] = R"(
link set lo up
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
    enterNetwork();
  }

  /// A fresh network, and a fresh source in it.
  void enterNetwork() {
    std::string refusal;
    network = NetworkNamespace::enter(refusal);
    if (!network) GTEST_SKIP() << refusal;
    source = makeRouteReachabilitySource();
    ASSERT_EQ(source->failure(), "");
    internet = address("0.0.0.0");
    gate = address("10.0.0.2");
    // While somebody is registered, whatever the kernel reports wakes the loop.
    ASSERT_TRUE(gate->setCallback(take, {0, std::make_shared<std::string>()}));
    batch(kLinks);
    awaitRead(gate, 'D');
    awaitRead(address("10.0.1.2"), 'B');
    for (const char* own : {"fd00::1", "fd01::1", "fe80::8%v0", "fe80::9%wwan0"}) {
      awaitRead(address(own), 'L');
    }
    fence = address("10.9.9.9");
    fenced = watch(fence);
  }

  void batch(const std::string& lines) {
    const TemporaryDirectory directory;
    const std::string file = directory.path() / "batch";
    std::ofstream(file) << lines << std::flush;
    network->ip("-batch " + file);
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
      queue->sync([] {});
    }
  }
  void awaitRead(const Target& target, char letter) {
    await([&] { return read(target) == letter; });
  }
  /// Returns when the loop has looked at what was done until now, and delivered.
  void awaitLook() {
    isFenceUp = !isFenceUp;
    network->ip(std::string("address ") + (isFenceUp ? "add" : "del") + " 10.9.9.9/32 dev lo");
    await([&] { return isFenceUp == fenced->ends_with('L'); });
  }

  std::unique_ptr<NetworkNamespace> network;
  int loop = -1;
  int turns = 0;
  std::shared_ptr<NetworkReachabilitySource> source;
  const std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("deliveries");
  Target internet;
  Target gate;
  Target fence;
  Deliveries fenced;
  bool isFenceUp = false;
};

TEST_F(RouteReachabilityTest, TargetsAreWhereTheKernelSendsThisProcess) {
  const struct {
    /// Letters, each before the addresses of which it is expected.
    const char* expected;
    const char* commands;
    /// A far end that is taken down.
    const char* down = nullptr;
  } cases[] = {
      {"L 127.0.0.1 ::1 10.0.0.1 fd00::1 D 10.0.0.77 ::ffff:10.0.0.77 fd00::77 fe80::77%v0 "
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
      {"W 0.0.0.0", "route add default via 10.0.1.2"},
      {"- 0.0.0.0", "route add default via 10.0.0.2", "v1"},
      {"R 0.0.0.0", "route add 0.0.0.0/1 via 10.0.0.2"},
      {"R 0.0.0.0", "route add 128.0.0.0/1 via 10.0.0.2"},
      {"R 0.0.0.0 ::", "route add 2000::/3 via fd00::2"},
      // Rules, and who they are for.
      {"- 0.0.0.0", "route add default via 10.0.0.2 table 77"},
      {"R 0.0.0.0",
       "route add default via 10.0.0.2 table 77\nrule add ipproto 6 dport 443 lookup 77"},
      {"- 0.0.0.0", "route add default via 10.0.0.2\nrule add prohibit"},
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
    enterNetwork();
    batch(commands);
    if (down) {
      network->setDown(down);
      awaitRead(gate, '-');
    }
    std::istringstream words(expected);
    char letter = '!';
    for (std::string word; words >> word;) {
      if (word.size() == 1) {
        letter = word[0];
      } else {
        EXPECT_EQ(read(address(word)), letter) << word << " with " << commands;
      }
    }
  }
  const sockaddr_un other{AF_UNIX, ""};
  EXPECT_EQ(source->createWithAddress(nullptr), nullptr);
  EXPECT_EQ(source->createWithAddress(reinterpret_cast<const sockaddr*>(&other)), nullptr);
  EXPECT_EQ(source->createWithName(""), nullptr);
}

TEST_F(RouteReachabilityTest, EachChangeIsDeliveredOnce) {
  network->addDefaultRoute("via 10.0.0.2");
  const auto deliveries = watch(internet);
  batch(
      "address add 10.0.0.5/24 dev v0\nroute add default via fd00::2\n"
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
      network->ip(change);
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
      {"up start queue down read up look", "R"},
      {"up start queue down read up read look", "R"},
      {"up start queue stop down read up start start look", "R"},
      // Registering delivers nothing by itself, nor does anything come after the end.
      {"up read start queue look", ""},
      {"start queue stop up start look", ""},
      {"start queue stop up look", ""},
      {"start queue up look stop down start look", "R-"},
      // Without a queue or a receiver.
      {"start up look queue look", "R"},
      {"start up look down look queue look", ""},
      {"start queue forget up look", ""},
      // What still waits on the queue is dropped with its registration, and made up for.
      {"start queue hold up look stop release look", ""},
      {"start queue hold up look no-queue release queue look", "R"},
      {"start queue read hold up look stop start release look", "R"},
      {"start queue hold up look down read up look release look", "R"},
      {"start queue hold up look down look release look", "R-"},
  };
  for (const auto& [script, expected] : cases) {
    internet = address("0.0.0.0");
    auto deliveries = std::make_shared<std::string>();
    const auto slow = std::make_shared<SerialQueue>("slow");
    std::unique_ptr<std::promise<void>> held;
    bool isUp = false;
    const std::map<std::string, std::function<void()>> steps{
        {"start", [&] { internet->setCallback(take, {0, deliveries}); }},
        {"stop", [&] { internet->setCallback(nullptr, {}); }},
        {"queue", [&] { internet->setDispatchQueue(slow); }},
        {"no-queue", [&] { internet->setDispatchQueue(nullptr); }},
        {"forget", [&] { deliveries = std::make_shared<std::string>(); }},
        {"up", [&] { network->addDefaultRoute("via 10.0.0.2"), isUp = true; }},
        {"down", [&] { network->removeDefaultRoute("via 10.0.0.2"), isUp = false; }},
        {"read", [&] { EXPECT_EQ(read(internet), isUp ? 'R' : '-') << script; }},
        {"look", [&] { awaitLook(); }},
        {"hold",
         [&] {
           held = std::make_unique<std::promise<void>>();
           slow->async([released = held->get_future().share()] { released.wait(); });
         }},
        {"release", [&] { std::exchange(held, nullptr)->set_value(); }},
    };
    std::istringstream words(script);
    for (std::string word; words >> word;) {
      steps.at(word)();
      if (!held) slow->sync([] {});
    }
    EXPECT_EQ(*deliveries, expected) << script;
    if (isUp) steps.at("down")();
  }
}

TEST_F(RouteReachabilityTest, NoReaderIsLeftBehindWhileThreadsReadAndRegister) {
  network->addDefaultRoute("via 10.0.0.2");
  const auto deliveries = watch(internet);
  std::atomic<bool> sawNone = false;
  {
    const std::jthread others([&](const std::stop_token& end) {
      while (!end.stop_requested()) {
        sawNone = read(internet) == '-' || sawNone;
        address("10.0.0.7")->setCallback(take, {});
      }
    });
    for (int i = 0; i < 30; ++i) {
      network->removeDefaultRoute("via 10.0.0.2");
      if (i % 3 == 0) MainLoop::mainLoop().runPending();
      network->addDefaultRoute("via 10.0.0.2");
    }
  }
  awaitLook();
  ASSERT_TRUE(sawNone);
  EXPECT_TRUE(deliveries->ends_with('R')) << *deliveries;
}

TEST_F(RouteReachabilityTest, ReportsThatKeepComingAreLookedAtTenTimesASecond) {
  network->addDefaultRoute("via 10.0.0.2");
  const auto deliveries = watch(internet);
  awaitLook();
  turns = 0;
  const auto begin = std::chrono::steady_clock::now();
  // More than the socket holds, and the change that counts is the last.
  std::string changes;
  for (int i = 0; i < 4000; ++i) {
    changes += "route replace 203.0.113.0/24 metric 1" + std::to_string(i) + " dev v0\n";
  }
  bool isDone = false;
  std::jthread changing([&] {
    batch(changes + "route del default via 10.0.0.2\n");
    MainLoop::mainLoop().post([&] { isDone = true; });
  });
  await([&] { return isDone && !deliveries->empty(); });
  EXPECT_EQ(*deliveries, "-");
  // A look takes two turns, as its time has to come.
  EXPECT_LE(turns, 4 + 2 * ((std::chrono::steady_clock::now() - begin) / 100ms));
}

TEST_F(RouteReachabilityTest, AnExpiringRouteEndsBeforeItsReport) {
  const auto deliveries = watch(internet);
  const Descriptor reports(
      socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  const sockaddr_nl group{AF_NETLINK, 0, 0, RTMGRP_IPV6_ROUTE};
  ASSERT_EQ(bind(reports.number(), reinterpret_cast<const sockaddr*>(&group), sizeof group), 0);
  network->addDefaultRoute("via fd00::2 expires 1");
  await([&] { return deliveries->size() == 2; });
  EXPECT_EQ(*deliveries, "R-");
  nlmsghdr report{};
  while (recv(reports.number(), &report, sizeof report, 0) > 0) {
    EXPECT_NE(report.nlmsg_type, RTM_DELROUTE);
  }
}

TEST_F(RouteReachabilityTest, OnlyAnErrorThatSaysSoMeansThatThereIsNoWay) {
  network->addDefaultRoute("via 10.0.0.2");
  for (const int error : {ENETUNREACH, EHOSTUNREACH, EACCES, EINVAL, ENODEV, EOPNOTSUPP}) {
    answerError = error;
    EXPECT_EQ(read(internet), '-') << error;
  }
  for (const int error : {ENOBUFS, ENOMEM, EINTR, EMFILE, EPERM}) {
    answerError = 0;
    EXPECT_EQ(read(gate), 'D');
    answerError = error;
    EXPECT_EQ(read(gate), 'D') << error;                 // as before
    EXPECT_EQ(read(address("10.0.0.2")), 'R') << error;  // as if it could not be asked
  }
  // Then it is asked again, without a report.
  answerError = 0;
  internet = address("0.0.0.0");
  const auto deliveries = watch(internet);
  awaitLook();
  answerError = ENOBUFS;
  falsified = 0;
  network->removeDefaultRoute("via 10.0.0.2");
  await([] { return falsified > 0; });
  EXPECT_EQ(*deliveries, "");
  answerError = 0;
  await([&] { return !deliveries->empty(); });
  EXPECT_EQ(*deliveries, "-");
}

bool enterMounts() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

TEST_F(RouteReachabilityTest, AKindOfLinkThatCannotBeReadForNowIsReadLater) {
  if (!enterMounts() || mount("none", "/sys/class/net", "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "sysfs cannot be replaced";
  }
  std::filesystem::create_directory("/sys/class/net/v0");
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  const rlimit none{0, usual.rlim_max};
  const unsigned index = if_nametoindex("v0");
  for (const auto& [number, letter] : {std::pair{index + 100, 'D'}, std::pair{index, 'B'}}) {
    std::ofstream("/sys/class/net/v0/uevent") << "DEVTYPE=wwan\nIFINDEX=" << number << "\n";
    source = makeRouteReachabilitySource();
    EXPECT_EQ(source->failure(), "");
    gate = address("10.0.0.2");
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(read(gate), 'R');
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(read(gate), letter);
  }
}

TEST_F(RouteReachabilityTest, NamesAreResolvedAndResolvedAgain) {
  // The names of this machine, as the test writes them.
  const TemporaryDirectory directory;
  const std::string hosts = directory.path() / "hosts";
  const auto write = [&](const char* lines) { std::ofstream(hosts) << lines; };
  write("127.0.0.1 localhost\n");
  if (!enterMounts() || mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
    GTEST_SKIP() << "the table of hosts cannot be replaced";
  }
  std::size_t lookUps = nameLookupCount();
  const Target later = source->createWithName("later.test");
  const auto deliveries = watch(later);
  await([&] { return nameLookupCount() > lookUps && read(later) == '?'; });
  // By itself, without a reader and on an unchanged network.
  write("203.0.113.1 later.test\n10.0.0.9 later.test\n");
  await([&] { return !deliveries->empty(); });
  EXPECT_EQ(*deliveries, "D");
  // On another network it may have another address.
  write("10.0.1.9 later.test\n");
  network->addDefaultRoute("via 10.0.1.2");
  await([&] { return deliveries->ends_with('B'); });
  // But at most once a second.
  lookUps = nameLookupCount();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 50; ++i) {
    network->removeDefaultRoute("via 10.0.1.2");
    read(later);
    network->addDefaultRoute("via 10.0.1.2");
    read(later);
  }
  EXPECT_LE(nameLookupCount() - lookUps,
            static_cast<std::size_t>(2 + (std::chrono::steady_clock::now() - begin) / 1s));
  // The addresses stay known where the name is not found any more.
  write("");
  lookUps = nameLookupCount();
  network->removeDefaultRoute("via 10.0.1.2");
  await([&] { return nameLookupCount() > lookUps; });
  awaitLook();
  EXPECT_EQ(read(later), 'B');
}

TEST_F(RouteReachabilityTest, TheResolverTakesNoStandardNumber) {
  close(STDIN_FILENO);
  const auto lowest = [] {
    const int number = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(number);
    return number;
  };
  auto hanging = std::make_unique<HangingLookup>();
  const Target target = source->createWithName(HangingLookup::kName);
  const auto deliveries = watch(target);
  hanging->await();
  EXPECT_NE(lowest(), STDIN_FILENO);
  hanging.reset();
  await([&] { return lowest() == STDIN_FILENO; });

  auto first = std::make_unique<StandardNumbersHeld>();
  auto second = std::make_unique<StandardNumbersHeld>();
  first.reset();
  EXPECT_NE(lowest(), STDIN_FILENO);
  dup2(loop, STDIN_FILENO);  // the host's own
  second.reset();
  EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
}

TEST_F(RouteReachabilityTest, WhatCannotBeOpenedForNowIsOpenedLater) {
  source = makeRouteReachabilitySource();
  for (const int error : {EMFILE, ENFILE, ENOMEM, ENOBUFS}) {
    socketError = error;
    EXPECT_EQ(source->failure(), "") << error;
  }
  const Target target = address("0.0.0.0");
  const auto deliveries = watch(target);
  EXPECT_EQ(read(target), 'R');
  socketError = 0;
  EXPECT_EQ(read(target), '-');
  await([&] { return !deliveries->empty(); });
  EXPECT_EQ(*deliveries, "-");

  // In some sandboxes there is no netlink.
  socketError = EACCES;
  source = makeRouteReachabilitySource();
  EXPECT_EQ(source->failure(), "the netlink sockets cannot be opened: Permission denied");
  for (const Target& every : {address("10.0.0.1"), source->createWithName("name.test")}) {
    watch(every);
    EXPECT_EQ(read(every), 'R');
  }
}

TEST_F(RouteReachabilityTest, AForkedChildKnowsNothingAndTakesNothing) {
  const auto deliveries = watch(internet);
  network->addDefaultRoute("via 10.0.0.2");
  const pid_t child = fork();
  if (child == 0) {
    const bool isStill = read(internet) == '?' && !internet->setCallback(nullptr, {});
    _exit(isStill && !address("10.0.0.1") ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  awaitLook();
  EXPECT_EQ(*deliveries, "R");
}

}  // namespace
}  // namespace orbiq::test
