#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/rtnetlink.h>
#include <linux/seccomp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "orbiq/services/platform/Descriptor.h"
#include "orbiq/services/platform/MainLoop.h"
#include "orbiq/services/platform/NetworkReachability.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

constexpr std::uint32_t kNone = 0;
constexpr std::uint32_t kReachable = kSCNetworkReachabilityFlagsReachable;
constexpr std::uint32_t kLocal = kReachable | kSCNetworkReachabilityFlagsIsLocalAddress;
constexpr std::uint32_t kDirect = kReachable | kSCNetworkReachabilityFlagsIsDirect;
constexpr std::uint32_t kWWAN = kReachable | kSCNetworkReachabilityFlagsIsWWAN;
/// What `read` gives for flags that are not known.
constexpr std::uint32_t kUnknown = 1U << 31;

using namespace std::chrono_literals;
using Target = std::shared_ptr<NetworkReachability>;
using Flags = std::vector<std::uint32_t>;

/// What was delivered for one registration. To be looked at when the queue is at rest.
struct Deliveries {
  Flags flags;
  static void take(NetworkReachability&, std::uint32_t flags, void* info) {
    static_cast<Deliveries*>(info)->flags.push_back(flags);
  }
};

std::uint32_t read(const Target& target) {
  std::uint32_t flags = 0;
  return target->getFlags(flags) ? flags : kUnknown;
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
    ASSERT_TRUE(gate->setCallback(Deliveries::take, {0, std::make_shared<Deliveries>()}));
    batch(kLinks);
    awaitFlags(gate, kDirect);
    awaitFlags(address("10.0.1.2"), kDirect | kWWAN);
    for (const char* own : {"fd00::1", "fd01::1", "fe80::8%v0", "fe80::9%wwan0"}) {
      awaitFlags(address(own), kLocal);
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

  std::shared_ptr<Deliveries> watch(const Target& target) {
    auto deliveries = std::make_shared<Deliveries>();
    EXPECT_TRUE(target->setCallback(Deliveries::take, {0, deliveries}));
    EXPECT_TRUE(target->setDispatchQueue(queue));
    return deliveries;
  }

  void turn() {
    MainLoop::mainLoop().runPending();
    queue->sync([] {});
    ++turns;
  }
  void await(const std::function<bool()>& isFulfilled) {
    for (pollfd waited{loop, POLLIN, 0}; !isFulfilled(); turn()) poll(&waited, 1, -1);
  }
  void awaitFlags(const Target& target, std::uint32_t flags) {
    await([&] { return read(target) == flags; });
  }
  /// Returns when the loop has looked at what was done until now, and delivered.
  void awaitLook() {
    isFenceUp = !isFenceUp;
    network->ip(std::string("address ") + (isFenceUp ? "add" : "del") + " 10.9.9.9/32 dev lo");
    await([&] { return isFenceUp == (!fenced->flags.empty() && fenced->flags.back() == kLocal); });
  }

  std::unique_ptr<NetworkNamespace> network;
  int loop = -1;
  int turns = 0;
  std::shared_ptr<NetworkReachabilitySource> source;
  const std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("deliveries");
  Target internet;
  Target gate;
  Target fence;
  std::shared_ptr<Deliveries> fenced;
  bool isFenceUp = false;
};

TEST_F(RouteReachabilityTest, TheInternetIsWhereTheKernelSendsThisProcess) {
  const struct {
    std::uint32_t expected;
    const char* commands;
    /// A far end that is taken down.
    const char* down = nullptr;
  } cases[] = {
      {kNone, ""},
      {kReachable, "route add default via 10.0.0.2"},
      {kReachable, "route add default via fd00::2"},
      {kReachable, "route add default dev v0"},
      {kWWAN, "route add default via 10.0.1.2"},
      {kNone, "route add default via 10.0.0.2", "v1"},
      // Instead of a default route.
      {kReachable, "route add 0.0.0.0/1 via 10.0.0.2"},
      {kReachable, "route add 128.0.0.0/1 via 10.0.0.2"},
      {kReachable, "route add 2000::/3 via fd00::2"},
      // Tables, rules and who they are for.
      {kNone, "route add default via 10.0.0.2 table 77"},
      {kReachable, "route add default via 10.0.0.2 table 77\nrule add lookup 77"},
      {kReachable, "route add default via 10.0.0.2 table 77\nrule add uidrange 0-0 lookup 77"},
      {kReachable,
       "route add default via 10.0.0.2 table 77\nrule add ipproto 6 dport 443 lookup 77"},
      {kNone, "route add default via 10.0.0.2\nrule add prohibit"},
      {kNone, "route add default via 10.0.0.2\nrule add uidrange 0-0 blackhole"},
      // The better metric counts, whatever comes of it.
      {kNone, "route add default via 10.0.0.2 metric 9\nroute add unreachable default metric 5"},
      {kNone, "route add default via 10.0.0.2 metric 9\nroute add blackhole default metric 5"},
      {kNone, "route add default via 10.0.0.2 metric 9\nroute add prohibit default metric 5"},
      {kReachable, "route add default via 10.0.0.2\nroute add unreachable default metric 5"},
      {kWWAN, "route add default via 10.0.0.2 metric 9\nroute add default via 10.0.1.2"},
      {kNone, "route add default via 10.0.0.2\nroute add default via 10.0.1.2 metric 9", "v1"},
      // One usable hop is enough; the kernel prefers the other.
      {kWWAN, "route add default nexthop via 10.0.0.2 weight 255 nexthop via 10.0.1.2", "v1"},
      {kWWAN, "route add default nexthop via fd00::2 weight 255 nexthop via fd01::2", "v1"},
      {kNone, "route add default nexthop dev v0 nexthop via 10.0.0.3", "v1"},
      // No source from which an answer would come back, and links that do not carry.
      {kNone,
       "address flush dev v0\naddress add 169.254.9.9/16 dev v0\n"
       "address flush dev wwan0\nroute add default via 169.254.9.1"},
      {kNone,
       "address flush dev v0\naddress flush dev wwan0\naddress add fe80::7/64 dev v0 nodad\n"
       "route add default via fe80::2 dev v0"},
      {kNone, "route add default via 10.0.0.2\nlink set v0 state dormant"},
      {kNone, "route add local default dev lo"},
      {kNone, "route add default dev lo"},
  };
  for (const auto& [expected, commands, down] : cases) {
    enterNetwork();
    batch(commands);
    if (down) {
      network->setDown(down);
      awaitFlags(gate, kNone);
    }
    EXPECT_EQ(read(internet), expected) << commands << (down ? " without carrier" : "");
    EXPECT_EQ(read(address("::")), expected) << commands;
  }
  // Next-hop objects; qemu does not hand them on.
  if (*ORBIQ_TEST_EMULATOR != '\0') return;
  batch(
      "route del default\nnexthop add id 1 via 10.0.0.2 dev v0\n"
      "nexthop add id 2 via 10.0.1.2 dev wwan0\nnexthop add id 3 group 1,255/2\n"
      "nexthop add id 4 blackhole\nroute add default nhid 4");
  EXPECT_EQ(read(internet), kNone);
  batch("route replace default nhid 3");
  network->setDown("v1");
  awaitFlags(gate, kNone);
  EXPECT_EQ(read(internet), kWWAN);
}

TEST_F(RouteReachabilityTest, OtherAddressesByTheirRoute) {
  const auto expect = [&](std::uint32_t flags, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) EXPECT_EQ(read(address(text)), flags) << text;
  };
  expect(kLocal, {"127.0.0.1", "::1", "10.0.0.1", "fd00::1"});
  expect(kDirect, {"10.0.0.77", "::ffff:10.0.0.77", "fd00::77", "fe80::77%v0"});
  expect(kDirect | kWWAN, {"fe80::77%wwan0"});
  expect(kNone, {"203.0.113.1", "2001:db8::1", "169.254.0.0"});

  batch(
      "route add default via 10.0.0.2\nroute add default via fd00::2\n"
      "route add blackhole 198.51.100.0/24\nroute add 192.0.2.0/24 via 10.0.1.2");
  expect(kReachable, {"203.0.113.1", "2001:db8::1", "169.254.7.7"});
  // The last is not reached through a gateway.
  expect(kNone, {"198.51.100.1", "169.254.0.0"});
  expect(kWWAN, {"192.0.2.1"});
  network->addAddress("v0", "169.254.9.9/16");
  expect(kDirect, {"169.254.0.0"});
  network->ip("address del 10.0.0.1/24 dev v0");
  expect(kNone, {"203.0.113.1"});  // from a link-local source no answer comes back
  network->setDown("v1");
  awaitFlags(address("169.254.0.0"), kNone);

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
  EXPECT_EQ(deliveries->flags, Flags{});

  // Each change alone, as no other kind of report is to wake the loop.
  Flags expected;
  const std::pair<const char*, std::uint32_t> changes[] = {
      {"route del default via 10.0.0.2", kWWAN},
      {"rule add prohibit", kReachable},  // by IPv6
      {"-6 rule add prohibit", kNone},
      {"rule del prohibit", kWWAN},
      {"link set wwan1 down", kNone},
      {"route add default via 10.0.0.2", kReachable},
      {"link set v1 down", kNone},
      {"link set wwan1 up", kNone},  // which is not preferred
      {"", kWWAN},
      {"link set wwan0 down", kNone},  // its route goes without a report of its own
  };
  for (const auto& [change, flags] : changes) {
    if (*change != '\0') {
      network->ip(change);
    } else {
      awaitFlags(address("10.0.1.2"), kDirect | kWWAN);
      std::ofstream("/proc/sys/net/ipv4/conf/all/ignore_routes_with_linkdown") << 1;
    }
    if (expected.empty() || expected.back() != flags) expected.push_back(flags);
    await([&] { return deliveries->flags.size() == expected.size(); });
    EXPECT_EQ(deliveries->flags, expected) << change;
  }
  internet->setCallback(nullptr, {});
  network->setUp("v1");
  awaitFlags(internet, kReachable);
  awaitLook();
  EXPECT_EQ(deliveries->flags, expected);
}

TEST_F(RouteReachabilityTest, ANetworkThatIsBackUnseenIsNoChangeButOneThatWasSeenAwayIs) {
  network->addDefaultRoute("via 10.0.0.2");
  auto deliveries = watch(internet);
  batch("route del default\nroute add default via 10.0.0.2");
  awaitLook();
  EXPECT_EQ(deliveries->flags, Flags{});
  // Seen by a reader, once while somebody is registered and once before.
  for (const bool isRegistered : {true, false}) {
    if (!isRegistered) internet->setCallback(nullptr, {});
    network->removeDefaultRoute("via 10.0.0.2");
    EXPECT_EQ(read(internet), kNone);
    network->addDefaultRoute("via 10.0.0.2");
    // A registration that replaces one takes over what that was owed.
    for (int i = 0; i < 2 && !isRegistered; ++i) deliveries = watch(internet);
    awaitLook();
    EXPECT_EQ(deliveries->flags, Flags{kReachable});
  }
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
  await([&] { return isDone && !deliveries->flags.empty(); });
  EXPECT_EQ(deliveries->flags, Flags{kNone});
  // A look takes two turns, as its time has to come.
  EXPECT_LE(turns, 4 + 2 * ((std::chrono::steady_clock::now() - begin) / 100ms));
}

TEST_F(RouteReachabilityTest, AnExpiringRouteEndsBeforeItsReport) {
  const auto deliveries = watch(internet);
  const int reports = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  const sockaddr_nl group{AF_NETLINK, 0, 0, RTMGRP_IPV6_ROUTE};
  ASSERT_EQ(bind(reports, reinterpret_cast<const sockaddr*>(&group), sizeof group), 0);
  network->addDefaultRoute("via fd00::2 expires 1");
  await([&] { return deliveries->flags.size() == 2; });
  EXPECT_EQ(deliveries->flags, (Flags{kReachable, kNone}));
  nlmsghdr report{};
  while (recv(reports, &report, sizeof report, 0) > 0) {
    EXPECT_NE(report.nlmsg_type, RTM_DELROUTE);
  }
  close(reports);
}

TEST_F(RouteReachabilityTest, DeliveriesNeedCallbackQueueAndReceiver) {
  auto deliveries = std::make_shared<Deliveries>();
  EXPECT_TRUE(internet->setCallback(Deliveries::take, {0, deliveries}));
  network->addDefaultRoute("via 10.0.0.2");
  awaitLook();
  EXPECT_EQ(deliveries->flags, Flags{});
  internet->setDispatchQueue(queue);
  awaitLook();
  EXPECT_EQ(deliveries->flags, Flags{kReachable});

  // A delivery that waits on the queue is dropped with its registration; with another queue it is
  // made up for.
  const auto heldUp = std::make_shared<SerialQueue>("held up");
  std::promise<void> mayGoOn;
  internet->setDispatchQueue(heldUp);
  heldUp->async([&] { mayGoOn.get_future().wait(); });
  network->removeDefaultRoute("via 10.0.0.2");
  awaitLook();
  internet->setDispatchQueue(nullptr);
  mayGoOn.set_value();
  heldUp->sync([] {});
  EXPECT_EQ(deliveries->flags, Flags{kReachable});
  internet->setDispatchQueue(queue);
  awaitLook();
  EXPECT_EQ(deliveries->flags, (Flags{kReachable, kNone}));

  const std::weak_ptr<Deliveries> gone = deliveries;
  deliveries = nullptr;
  EXPECT_TRUE(gone.expired());
  network->addDefaultRoute("via 10.0.0.2");
  awaitLook();
}

TEST_F(RouteReachabilityTest, NoReaderIsLeftBehindWhileThreadsReadAndRegister) {
  network->addDefaultRoute("via 10.0.0.2");
  const auto deliveries = watch(internet);
  std::atomic<bool> sawNone = false;
  {
    const std::jthread reader([&](const std::stop_token& end) {
      while (!end.stop_requested()) sawNone = read(internet) == kNone || sawNone;
    });
    const std::jthread registrar([&](const std::stop_token& end) {
      while (!end.stop_requested()) address("10.0.0.7")->setCallback(Deliveries::take, {});
    });
    for (int i = 0; i < 30; ++i) {
      network->removeDefaultRoute("via 10.0.0.2");
      if (i % 3 == 0) turn();
      network->addDefaultRoute("via 10.0.0.2");
    }
  }
  awaitLook();
  ASSERT_TRUE(sawNone);
  ASSERT_FALSE(deliveries->flags.empty());
  EXPECT_EQ(deliveries->flags.back(), kReachable);
}

TEST_F(RouteReachabilityTest, NamesAreResolvedAndResolvedAgain) {
  // The names of this machine, as the test writes them.
  const TemporaryDirectory directory;
  const std::string hosts = directory.path() / "hosts";
  const auto write = [&](const char* lines) { std::ofstream(hosts) << lines; };
  write("127.0.0.1 localhost\n");
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
    GTEST_SKIP() << "the table of hosts cannot be replaced";
  }
  // A resolution reads the file and closes it. Equal events in a row would be taken for one.
  const Descriptor closings(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(inotify_add_watch(closings.number(), hosts.c_str(), IN_OPEN | IN_CLOSE_NOWRITE), 0);
  const auto resolutions = [&] {
    int count = 0;
    for (inotify_event event{}; ::read(closings.number(), &event, sizeof event) > 0;) {
      count += (event.mask & IN_CLOSE_NOWRITE) != 0;
    }
    return count;
  };
  const Target later = source->createWithName("later.test");
  const auto deliveries = watch(later);
  await([&] { return resolutions() > 0; });
  // By itself, without a reader and on an unchanged network.
  write("203.0.113.1 later.test\n10.0.0.9 later.test\n");
  await([&] { return !deliveries->flags.empty(); });
  EXPECT_EQ(deliveries->flags, (Flags{kDirect}));
  // On another network it may have another address.
  write("10.0.1.9 later.test\n");
  network->addDefaultRoute("via 10.0.1.2");
  await([&] { return deliveries->flags.back() == (kDirect | kWWAN); });
  // But at most once a second.
  resolutions();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 50; ++i) {
    network->removeDefaultRoute("via 10.0.1.2");
    read(later);
    network->addDefaultRoute("via 10.0.1.2");
    read(later);
  }
  EXPECT_LE(resolutions(), 2 + (std::chrono::steady_clock::now() - begin) / 1s);
  // The addresses stay known where the name is not found any more.
  write("");
  network->removeDefaultRoute("via 10.0.1.2");
  await([&] { return resolutions() > 0; });
  awaitLook();
  EXPECT_EQ(read(later), kDirect | kWWAN);
}

TEST_F(RouteReachabilityTest, WhatCannotBeOpenedForNowIsOpenedLater) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  source = makeRouteReachabilitySource();
  setrlimit(RLIMIT_NOFILE, &none);
  const Target target = address("0.0.0.0");
  const auto deliveries = watch(target);
  EXPECT_EQ(read(target), kReachable);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(source->failure(), "");
  await([&] { return !deliveries->flags.empty(); });
  EXPECT_EQ(deliveries->flags, Flags{kNone});
}

TEST_F(RouteReachabilityTest, AForkedChildKnowsNothingAndTakesNothing) {
  const auto deliveries = watch(internet);
  network->addDefaultRoute("via 10.0.0.2");
  const pid_t child = fork();
  if (child == 0) {
    const bool isStill = read(internet) == kUnknown && !internet->setCallback(nullptr, {});
    _exit(isStill && !address("10.0.0.1") ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  awaitLook();
  EXPECT_EQ(deliveries->flags, Flags{kReachable});
}

/// From now on the process gets no netlink sockets, as in some sandboxes.
bool refuseNetlink() {
  constexpr auto kFirstArgument = offsetof(seccomp_data, args);
  std::array<sock_filter, 6> filter{{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFirstArgument),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EACCES),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  const sock_fprog program{filter.size(), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0 &&
         socket(AF_NETLINK, SOCK_RAW, 0) < 0;
}

TEST(RouteReachability, EverythingIsReachableWhereTheNetworkCannotBeWatched) {
  if (!refuseNetlink()) GTEST_SKIP() << "netlink cannot be refused to a process";
  const auto source = makeRouteReachabilitySource();
  EXPECT_EQ(source->failure(), "the netlink sockets cannot be opened: Permission denied");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  for (const Target& target : {source->createWithAddress(reinterpret_cast<sockaddr*>(&address)),
                               source->createWithName("name.test")}) {
    EXPECT_EQ(read(target), kReachable);
    EXPECT_TRUE(target->setCallback(Deliveries::take, {0, std::make_shared<Deliveries>()}));
    EXPECT_TRUE(target->setDispatchQueue(std::make_shared<SerialQueue>("none")));
  }
}

}  // namespace
}  // namespace orbiq::test
