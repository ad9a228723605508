#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/orbiqReachability/orbiqReachability.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/loop/NotificationCenter.h"
#include "orbiq/services/platform/loop/SerialQueue.h"
#include "tests/support/RunOn.h"

namespace orbiq::test {
namespace {

/// A target whose flags and failures the test sets, and which delivers when it is told to; and a
/// source of itself, which remembers what it was asked for.
class HandMadeNetwork : public NetworkReachability, public NetworkReachabilitySource {
 public:
  bool setCallback(NetworkReachabilityCallback newCallback,
                   const NetworkReachabilityContext& newContext) override {
    callback = newCallback;
    context = newContext;
    return true;
  }
  bool setDispatchQueue(std::shared_ptr<SerialQueue> newQueue) override {
    queue = std::move(newQueue);
    return true;
  }
  bool getFlags(std::uint32_t& result) override {
    if (throws) throw std::system_error(EAGAIN, std::generic_category());
    result = flags;
    return true;
  }
  std::shared_ptr<NetworkReachability> createWithName(const std::string& name) override {
    asked += name + " ";
    return name.empty() ? nullptr : std::make_shared<HandMadeNetwork>();
  }
  std::shared_ptr<NetworkReachability> createWithAddress(const sockaddr* address) override {
    return createWithName(inet_ntoa(reinterpret_cast<const sockaddr_in*>(address)->sin_addr));
  }
  std::string failure() override { return "no sockets here"; }

  void deliver(std::uint32_t newFlags) {
    runOn(*queue, [&] { callback(*this, newFlags, context.info.lock().get()); });
  }

  std::uint32_t flags = 0;
  bool throws = false;
  NetworkReachabilityCallback callback = nullptr;
  NetworkReachabilityContext context;
  std::shared_ptr<SerialQueue> queue;
  std::string asked;
};

class OrbiqReachabilityTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GE(MainLoop::mainLoop().adopt(), 0);
    NotificationCenter::defaultCenter().addObserver(
        this, korbiqReachabilityChangedNotification,
        [this](const Notification& notification) { notified.push_back(notification.object); });
  }

  std::vector<std::shared_ptr<Object>> notified;
  const std::shared_ptr<HandMadeNetwork> handle = std::make_shared<HandMadeNetwork>();
  std::shared_ptr<orbiqReachability> monitor = orbiqReachability::initWithReachabilityRef(handle);
};

/// What a monitor answers, written as the names of the predicates that are true.
std::string answers(orbiqReachability& monitor) {
  std::string text;
  if (monitor.isReachable()) text += "reachable ";
  if (monitor.isReachableViaWWAN()) text += "wwan ";
  if (monitor.isReachableViaWiFi()) text += "wifi ";
  if (monitor.isConnectionRequired()) text += "required ";
  if (monitor.isConnectionOnDemand()) text += "demand ";
  if (monitor.isInterventionRequired()) text += "intervention ";
  return text + std::to_string(monitor.currentReachabilityStatus()) + " " +
         monitor.currentReachabilityString().toStdString() + " " +
         monitor.currentReachabilityFlags().toStdString();
}

TEST_F(OrbiqReachabilityTest, AnswersForFlags) {
  EXPECT_TRUE(HostApplication::describe({.localize = [](const String& key) -> String {
                return key == "WiFi" ? String("Drahtlos") : String();
              }}).isNull());
  const char kNone[] = "0 No Connection -- -------";
  const struct {
    std::uint32_t flags;
    bool reachableOnWWAN;
    const char* expected;
  } cases[] = {
      {0, true, kNone},
      {0, false, "0 Cellular -- -------"},
      {2, true, "reachable wifi 2 Drahtlos -R -------"},
      {2 + 262144, true, "reachable wwan 1 Cellular WR -------"},
      {2 + 262144, false, "wwan 0 Cellular WR -------"},
      {1 + 2 + 4, true, "wifi required 0 No Connection -R ct-----"},
      {2 + 4, true, "reachable wifi required 2 Drahtlos -R c------"},
      {4 + 32, true, "required demand 0 No Connection -- c---D--"},
      {8 + 16 + 32 + 65536, true, "0 No Connection -- --iCDl-"},
      {458815, true, "wwan required demand intervention 0 No Connection WR ctiCDld"},
  };
  for (const auto& [flags, reachableOnWWAN, expected] : cases) {
    handle->flags = flags;
    monitor->setReachableOnWWAN(reachableOnWWAN);
    EXPECT_EQ(answers(*monitor), expected) << flags << reachableOnWWAN;
  }
  handle->throws = true;
  EXPECT_EQ(answers(*monitor), kNone);
  EXPECT_EQ(answers(*orbiqReachability::initWithReachabilityRef(nullptr)), kNone);
}

TEST_F(OrbiqReachabilityTest, EachReportCallsOneBlockAndPostsOneNotification) {
  std::string called;
  monitor->setReachableBlock(
      [&](orbiqReachability& from) { called += &from == monitor.get() ? "reachable " : "? "; });
  monitor->setUnreachableBlock([&](orbiqReachability& from) {
    called += "unreachable ";
    from.setUnreachableBlock(nullptr);
    throw std::runtime_error("a block's own trouble");
  });
  EXPECT_TRUE(monitor->startNotifier());
  for (const std::uint32_t flags : {2U, 0U, 2U + 1U + 4U, 2U}) handle->deliver(flags);
  EXPECT_EQ(called, "reachable unreachable reachable ");
  MainLoop::mainLoop().runPending();
  EXPECT_EQ(notified, std::vector<std::shared_ptr<Object>>(4, monitor));
  monitor->stopNotifier();
}

TEST_F(OrbiqReachabilityTest, AStartedMonitorKeepsItselfAliveUntilItIsStopped) {
  EXPECT_TRUE(monitor->startNotifier());
  EXPECT_TRUE(monitor->startNotifier());  // registers anew, on a new queue
  EXPECT_EQ(monitor->reachabilitySerialQueue(), handle->queue);
  orbiqReachability* const raw = monitor.get();
  const std::weak_ptr<orbiqReachability> weak = std::exchange(monitor, nullptr);
  ASSERT_FALSE(weak.expired());
  handle->deliver(2);
  raw->stopNotifier();
  EXPECT_EQ(handle->callback, nullptr);
  ASSERT_FALSE(weak.expired());  // a notification is under way
  MainLoop::mainLoop().runPending();
  EXPECT_EQ(notified.size(), 1U);
  notified.clear();
  EXPECT_TRUE(weak.expired());
}

TEST_F(OrbiqReachabilityTest, FactoriesAskForTheirTargets) {
  std::vector<std::string> lines;
  SystemLog::setSink([&](const LogLine& line) { lines.emplace_back(line.text); });
  orbiqLogger::sharedLogger().setLoggingMode(LoggingModeWarning);
  ASSERT_TRUE(Platform::install({.reachabilitySource = handle}).isNull());
  EXPECT_NE(orbiqReachability::reachabilityWithHostname("a.test"), nullptr);
  EXPECT_NE(orbiqReachability::reachabilityForInternetConnection(), nullptr);
  EXPECT_NE(orbiqReachability::reachabilityForLocalWiFi(), nullptr);
  EXPECT_EQ(orbiqReachability::reachabilityWithHostname(nullptr), nullptr);
  EXPECT_EQ(orbiqReachability::reachabilityWithHostname(""), nullptr);
  EXPECT_EQ(handle->asked, "a.test 0.0.0.0 169.254.0.0  ");
  SystemLog::setSink(nullptr);
  EXPECT_EQ(lines, std::vector<std::string>({"(WARNING) : The network cannot be watched, every "
                                             "target counts as reachable: no sockets here"}));
}

}  // namespace
}  // namespace orbiq::test
