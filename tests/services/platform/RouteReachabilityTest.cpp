#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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

/// A network of two links and their far ends, v0 with 10.0.0.1/24 and wwan0 with 10.0.1.1/24, and
/// no default route; the loop belongs to the test.
class RouteReachabilityTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string refusal;
    network = NetworkNamespace::enter(refusal);
    if (!network) GTEST_SKIP() << refusal;
    loop = MainLoop::mainLoop().adopt();
    ASSERT_GE(loop, 0);
    source = makeRouteReachabilitySource();
    ASSERT_EQ(source->failure(), "");
    internet = address("0.0.0.0");
    gate = address("10.0.0.2");
    // While somebody is registered, whatever the kernel reports wakes the loop.
    ASSERT_TRUE(gate->setCallback(Deliveries::take, {0, std::make_shared<Deliveries>()}));

    network->addVethPair("v0", "v1");
    network->addVethPair("wwan0", "wwanpeer");
    for (const char* link : {"v0", "v1", "wwan0", "wwanpeer"}) network->setUp(link);
    network->addAddress("v0", "10.0.0.1/24");
    network->addAddress("wwan0", "10.0.1.1/24");
    awaitFlags(gate, kDirect);
    awaitFlags(address("10.0.1.2"), kDirect | kWWAN);
  }

  Target address(const std::string& text) {
    addrinfo* parsed = nullptr;
    EXPECT_EQ(getaddrinfo(text.c_str(), nullptr, nullptr, &parsed), 0) << text;
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

  /// Lets everything that is due happen, and what comes of it.
  void settle() {
    for (int turn = 0; turn < 2; ++turn) {
      MainLoop::mainLoop().runPending();
      queue->sync([] {});
    }
  }
  void await(const std::function<bool()>& isFulfilled) {
    for (pollfd waited{loop, POLLIN, 0}; !isFulfilled(); settle()) poll(&waited, 1, -1);
  }
  void awaitFlags(const Target& target, std::uint32_t flags) {
    await([&] { return read(target) == flags; });
  }

  std::unique_ptr<NetworkNamespace> network;
  int loop = -1;
  std::shared_ptr<NetworkReachabilitySource> source;
  const std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("deliveries");
  Target internet;
  Target gate;
};

TEST_F(RouteReachabilityTest, InternetNeedsADefaultRouteOverALinkWithCarrier) {
  EXPECT_EQ(read(internet), kNone);
  network->addDefaultRoute("via 10.0.0.2");
  EXPECT_EQ(read(internet), kReachable);
  EXPECT_EQ(read(address("::")), kReachable);

  network->setDown("v1");  // the route stays
  awaitFlags(internet, kNone);
  network->setUp("v1");
  awaitFlags(internet, kReachable);

  network->setDown("v0");  // the route goes without a message of its own
  EXPECT_EQ(read(internet), kNone);
  network->setUp("v0");
  awaitFlags(gate, kDirect);
  EXPECT_EQ(read(internet), kNone);

  network->addAddress("v0", "fd00::1/64");
  for (const std::string route :
       {"route add default via 10.0.0.2", "-6 route add default via fd00::2",
        "route add default via 10.0.0.2 table 77", "route add blackhole default",
        "route add unreachable default", "route add prohibit default"}) {
    network->ip(route);
    EXPECT_EQ(read(internet), route.find(" via ") != route.npos ? kReachable : kNone) << route;
    network->ip(std::string(route).replace(route.find("add"), 3, "del"));
    EXPECT_EQ(read(internet), kNone) << route;
  }
}

TEST_F(RouteReachabilityTest, OneUsableNextHopIsEnoughAndTheLowestMetricTellsWWAN) {
  const std::string hops = "nexthop via 10.0.0.2 nexthop via 10.0.1.2";
  network->ip("route add default " + hops);
  EXPECT_EQ(read(internet), kReachable);
  network->setDown("v1");
  awaitFlags(gate, kNone);
  EXPECT_EQ(read(internet), kWWAN);
  network->setDown("wwanpeer");
  awaitFlags(internet, kNone);
  network->ip("route del default " + hops);
  network->setUp("v1");
  network->setUp("wwanpeer");
  awaitFlags(gate, kDirect);
  awaitFlags(address("10.0.1.2"), kDirect | kWWAN);

  if (*ORBIQ_TEST_EMULATOR != '\0') return;  // qemu does not hand on the messages that follow
  // Next-hop objects, whose links the kernel does not spell out in this mode.
  std::ofstream("/proc/sys/net/ipv4/nexthop_compat_mode") << 0;
  for (const char* hop :
       {"1 via 10.0.0.2 dev v0", "2 via 10.0.1.2 dev wwan0", "3 group 1/2", "4 blackhole"}) {
    network->ip(std::string("nexthop add id ") + hop);
  }
  network->ip("route add default nhid 4 metric 5");
  EXPECT_EQ(read(internet), kNone);
  network->ip("route add default nhid 3 metric 6");
  EXPECT_EQ(read(internet), kReachable);
  network->ip("route replace default nhid 2 metric 4");
  EXPECT_EQ(read(internet), kWWAN);
}

TEST_F(RouteReachabilityTest, OtherAddressesByTheirRoute) {
  network->addAddress("v0", "fd00::1/64");
  const auto expect = [&](std::uint32_t flags, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) EXPECT_EQ(read(address(text)), flags) << text;
  };
  expect(kLocal, {"127.0.0.1", "::1", "10.0.0.1"});
  expect(kDirect, {"10.0.0.77", "::ffff:10.0.0.77", "fd00::77", "fe80::77%v0"});
  expect(kDirect | kWWAN, {"fe80::77%wwan0"});
  expect(kNone, {"203.0.113.1", "2001:db8::1", "169.254.0.0"});

  network->addDefaultRoute("via 10.0.0.2");
  network->addDefaultRoute("via fd00::2");
  network->ip("route add blackhole 198.51.100.0/24");
  network->ip("route add 192.0.2.0/24 via 10.0.1.2");
  expect(kReachable, {"203.0.113.1", "2001:db8::1", "169.254.7.7"});
  // The last is not reached through a gateway.
  expect(kNone, {"198.51.100.1", "169.254.0.0"});
  expect(kWWAN, {"192.0.2.1"});
  network->addAddress("v0", "169.254.9.9/16");
  network->ip("address del 10.0.0.1/24 dev v0");
  expect(kDirect, {"169.254.0.0"});
  expect(kReachable, {"10.0.0.77"});  // a neighbour no more
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
  settle();
  EXPECT_EQ(deliveries->flags, Flags{});

  network->addAddress("v0", "10.0.0.5/24");
  network->addAddress("v0", "fd00::1/64");
  network->addDefaultRoute("via 10.0.1.2 metric 10");  // behind the first
  network->ip("address del 10.0.0.5/24 dev v0");
  settle();
  EXPECT_EQ(deliveries->flags, Flags{});

  network->removeDefaultRoute("via 10.0.0.2");
  read(gate);  // a reader of another target takes the report from the loop
  settle();
  EXPECT_EQ(deliveries->flags, (Flags{kWWAN}));
  network->setDown("wwanpeer");
  await([&] { return deliveries->flags.size() == 2; });
  network->addDefaultRoute("via 10.0.0.2");
  settle();
  EXPECT_EQ(deliveries->flags, (Flags{kWWAN, kNone, kReachable}));

  internet->setCallback(nullptr, {});
  network->removeDefaultRoute("via 10.0.0.2");
  settle();
  EXPECT_EQ(deliveries->flags.size(), 3U);
}

TEST_F(RouteReachabilityTest, ANetworkThatIsBackUnseenIsNoChangeButOneThatWasSeenAwayIs) {
  network->addDefaultRoute("via 10.0.0.2");
  auto deliveries = watch(internet);
  network->removeDefaultRoute("via 10.0.0.2");
  network->addDefaultRoute("via 10.0.0.2");
  settle();
  EXPECT_EQ(deliveries->flags, Flags{});
  // Seen by a reader, once while somebody is registered and once before.
  for (const bool isRegistered : {true, false}) {
    if (!isRegistered) internet->setCallback(nullptr, {});
    network->removeDefaultRoute("via 10.0.0.2");
    EXPECT_EQ(read(internet), kNone);
    network->addDefaultRoute("via 10.0.0.2");
    // A registration that replaces one takes over what that was owed.
    for (int i = 0; i < 2 && !isRegistered; ++i) deliveries = watch(internet);
    settle();
    EXPECT_EQ(deliveries->flags, Flags{kReachable});
  }

  // More reports than the socket holds.
  const TemporaryDirectory directory;
  std::ofstream batch(directory.path() / "batch");
  for (int i = 0; i < 4000; ++i)
    batch << "route replace 203.0.113.0/24 metric 1" << i << " dev v0\n";
  batch << "route del default via 10.0.0.2\n" << std::flush;
  network->ip("-batch " + (directory.path() / "batch").string());
  settle();
  EXPECT_EQ(deliveries->flags, (Flags{kReachable, kNone}));
}

TEST_F(RouteReachabilityTest, DeliveriesNeedCallbackQueueAndReceiver) {
  auto deliveries = std::make_shared<Deliveries>();
  EXPECT_TRUE(internet->setCallback(Deliveries::take, {0, deliveries}));
  network->addDefaultRoute("via 10.0.0.2");
  settle();
  EXPECT_EQ(deliveries->flags, Flags{});
  internet->setDispatchQueue(queue);
  settle();
  EXPECT_EQ(deliveries->flags, Flags{kReachable});

  // A delivery that waits on the queue is dropped with its registration; with another queue it is
  // made up for.
  std::promise<void> mayGoOn;
  queue->async([&] { mayGoOn.get_future().wait(); });
  network->removeDefaultRoute("via 10.0.0.2");
  MainLoop::mainLoop().runPending();
  internet->setDispatchQueue(nullptr);
  mayGoOn.set_value();
  settle();
  EXPECT_EQ(deliveries->flags, Flags{kReachable});
  internet->setDispatchQueue(queue);
  settle();
  EXPECT_EQ(deliveries->flags, (Flags{kReachable, kNone}));

  const std::weak_ptr<Deliveries> gone = deliveries;
  deliveries = nullptr;
  EXPECT_TRUE(gone.expired());
  network->addDefaultRoute("via 10.0.0.2");
  settle();
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
      if (i % 3 == 0) settle();
      network->addDefaultRoute("via 10.0.0.2");
    }
  }
  settle();
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
  const Target later = source->createWithName("later.test");
  const auto deliveries = watch(later);
  awaitFlags(source->createWithName("localhost"), kLocal);
  EXPECT_EQ(read(later), kUnknown);
  write("203.0.113.1 later.test\n10.0.0.9 later.test\n");
  network->addDefaultRoute("via 10.0.1.2");
  await([&] { return !deliveries->flags.empty(); });
  EXPECT_EQ(deliveries->flags, (Flags{kDirect}));
  // The addresses stay known where the name is not found any more.
  write("");
  network->setDown("v0");
  awaitFlags(later, kWWAN);
  network->removeDefaultRoute("via 10.0.1.2");
  EXPECT_EQ(read(later), kNone);
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
  settle();
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
  EXPECT_EQ(source->failure(), "the netlink watch socket cannot be opened: Permission denied");
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
