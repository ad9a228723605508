#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>

#include <array>
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

namespace orbiq::test {
namespace {

/// A target whose flags and failures the test sets, and which delivers when it is told to.
class HandMadeReachability : public NetworkReachability {
 public:
  bool setCallback(NetworkReachabilityCallback newCallback,
                   const NetworkReachabilityContext& newContext) override {
    throwIfWanted();
    if (newCallback && !acceptsCallback) return false;
    callback = newCallback;
    context = newContext;
    return true;
  }
  bool setDispatchQueue(std::shared_ptr<SerialQueue> newQueue) override {
    throwIfWanted();
    if (newQueue && !acceptsQueue) return false;
    queue = std::move(newQueue);
    return true;
  }
  bool getFlags(std::uint32_t& result) override {
    throwIfWanted();
    if (isKnown) result = flags;
    return isKnown;
  }
  void throwIfWanted() const {
    if (throws) throw std::system_error(EAGAIN, std::generic_category());
  }
  void deliver(std::uint32_t newFlags) {
    queue->sync([&] { callback(*this, newFlags, context.info.lock().get()); });
  }

  std::uint32_t flags = 0;
  bool isKnown = true;
  bool throws = false;
  bool acceptsCallback = true;
  bool acceptsQueue = true;
  NetworkReachabilityCallback callback = nullptr;
  NetworkReachabilityContext context;
  std::shared_ptr<SerialQueue> queue;
};

/// Remembers what targets were asked for.
class HandMadeSource : public NetworkReachabilitySource {
 public:
  std::shared_ptr<NetworkReachability> createWithName(const std::string& name) override {
    asked.push_back(name);
    return name.empty() ? nullptr : std::make_shared<HandMadeReachability>();
  }
  std::shared_ptr<NetworkReachability> createWithAddress(const sockaddr* address) override {
    if (!address) return nullptr;
    asked.emplace_back(inet_ntoa(reinterpret_cast<const sockaddr_in*>(address)->sin_addr));
    return std::make_shared<HandMadeReachability>();
  }
  std::string failure() override { return "no sockets here"; }

  std::vector<std::string> asked;
};

class OrbiqReachabilityTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GE(MainLoop::mainLoop().adopt(), 0);
    NotificationCenter::defaultCenter().addObserver(
        this, korbiqReachabilityChangedNotification,
        [this](const Notification& notification) { notified.push_back(notification.object); });
  }
  void TearDown() override {
    NotificationCenter::defaultCenter().removeObserver(this, korbiqReachabilityChangedNotification);
  }

  std::vector<std::shared_ptr<Object>> notified;
  const std::shared_ptr<HandMadeReachability> handle = std::make_shared<HandMadeReachability>();
  std::shared_ptr<orbiqReachability> monitor = orbiqReachability::initWithReachabilityRef(handle);
};

/// What a monitor answers, written as the names of the predicates that are true.
std::string answers(orbiqReachability& monitor) {
  std::string text;
  if (monitor.isReachable()) text += "reachable ";
  if (monitor.isReachableViaWWAN()) text += "wwan ";
  if (monitor.isReachableViaWiFi()) text += "wifi ";
  if (monitor.connectionRequired()) text += "required ";
  if (monitor.isConnectionRequired() != monitor.connectionRequired()) text += "? ";
  if (monitor.isConnectionOnDemand()) text += "demand ";
  if (monitor.isInterventionRequired()) text += "intervention ";
  return text + std::to_string(monitor.currentReachabilityStatus()) + " " +
         monitor.currentReachabilityString().toStdString() + " " +
         monitor.currentReachabilityFlags().toStdString();
}

TEST_F(OrbiqReachabilityTest, AnswersForFlags) {
  const struct {
    std::uint32_t flags;
    bool reachableOnWWAN;
    const char* expected;
  } cases[] = {
      {0, true, "0 No Connection -- -------"},
      {0, false, "0 Cellular -- -------"},
      {2, true, "reachable wifi 2 WiFi -R -------"},
      {2, false, "reachable wifi 2 WiFi -R -------"},
      {2 + 262144, true, "reachable wwan 1 Cellular WR -------"},
      {2 + 262144, false, "wwan 0 Cellular WR -------"},
      {262144, true, "0 No Connection W- -------"},
      {1 + 2 + 4, true, "wifi required 0 No Connection -R ct-----"},
      {1 + 2, true, "reachable wifi 2 WiFi -R -t-----"},
      {2 + 4, true, "reachable wifi required 2 WiFi -R c------"},
      {4 + 8, true, "required demand 0 No Connection -- c--C---"},
      {4 + 32, true, "required demand 0 No Connection -- c---D--"},
      {4 + 16, true, "required intervention 0 No Connection -- c-i----"},
      {8 + 16 + 32 + 65536, true, "0 No Connection -- --iCDl-"},
      {458815, true, "wwan required demand intervention 0 No Connection WR ctiCDld"},
  };
  for (const auto& [flags, reachableOnWWAN, expected] : cases) {
    handle->flags = flags;
    monitor->setReachableOnWWAN(reachableOnWWAN);
    EXPECT_EQ(answers(*monitor), expected) << flags << reachableOnWWAN;
    EXPECT_EQ(monitor->reachabilityFlags(), flags);
  }
  monitor->setReachableOnWWAN(true);
  handle->isKnown = false;
  EXPECT_EQ(answers(*monitor), "0 No Connection -- -------");
  handle->throws = true;
  EXPECT_EQ(answers(*monitor), "0 No Connection -- -------");
  EXPECT_EQ(answers(*orbiqReachability::initWithReachabilityRef(nullptr)),
            "0 No Connection -- -------");
}

TEST_F(OrbiqReachabilityTest, TextsAreTheApplications) {
  EXPECT_TRUE(HostApplication::describe({.localize = [](const String& key) -> String {
                return key == "WiFi" ? String("Drahtlos") : String();
              }}).isNull());
  EXPECT_EQ(monitor->currentReachabilityString(), "No Connection");
  handle->flags = 2;
  EXPECT_EQ(monitor->currentReachabilityString(), "Drahtlos");
  EXPECT_EQ(monitor->description().find("<orbiqReachability: 0x"), 0U);
}

TEST_F(OrbiqReachabilityTest, EachReportCallsOneBlockAndPostsOneNotification) {
  std::string called;
  std::string thread;
  monitor->setReachableBlock([&](orbiqReachability& from) {
    called += &from == monitor.get() ? "reachable " : "? ";
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    thread = name.data();
  });
  monitor->setUnreachableBlock([&](orbiqReachability& from) {
    called += "unreachable ";
    from.setUnreachableBlock(nullptr);
    throw std::runtime_error("a block's own trouble");
  });
  EXPECT_TRUE(monitor->startNotifier());
  EXPECT_EQ(handle->queue->label(), "com.vorlune.reachability");
  for (const std::uint32_t flags : {2U, 0U, 2U + 1U + 4U, 2U}) handle->deliver(flags);
  EXPECT_EQ(called, "reachable unreachable reachable ");
  EXPECT_EQ(thread, std::string("com.vorlune.reachability").substr(0, 15));
  EXPECT_TRUE(notified.empty());
  MainLoop::mainLoop().runPending();
  EXPECT_EQ(notified, std::vector<std::shared_ptr<Object>>(4, monitor));
  reachabilityCallback(*handle, 2, nullptr);
  monitor->stopNotifier();
}

TEST_F(OrbiqReachabilityTest, AStartedMonitorKeepsItselfAliveUntilItIsStopped) {
  EXPECT_TRUE(monitor->startNotifier());
  EXPECT_EQ(monitor->reachabilityObject(), monitor);
  EXPECT_EQ(monitor->reachabilitySerialQueue(), handle->queue);
  EXPECT_TRUE(monitor->startNotifier());  // registers anew, on a new queue
  EXPECT_EQ(monitor->reachabilitySerialQueue(), handle->queue);
  orbiqReachability* const raw = monitor.get();
  const std::weak_ptr<orbiqReachability> weak = monitor;
  monitor = nullptr;
  ASSERT_FALSE(weak.expired());
  // A notification under way keeps it alive too.
  handle->deliver(2);
  raw->stopNotifier();
  EXPECT_EQ(handle->callback, nullptr);
  EXPECT_EQ(handle->queue, nullptr);
  ASSERT_FALSE(weak.expired());
  MainLoop::mainLoop().runPending();
  EXPECT_EQ(notified.size(), 1U);
  notified.clear();
  EXPECT_TRUE(weak.expired());

  monitor = orbiqReachability::initWithReachabilityRef(handle);
  EXPECT_TRUE(monitor->startNotifier());
  monitor->setReachabilityObject(nullptr);
  monitor = nullptr;  // destruction stops, too
  EXPECT_EQ(handle->callback, nullptr);
  EXPECT_EQ(handle.use_count(), 1);
}

TEST_F(OrbiqReachabilityTest, AFailedStartLeavesTheMonitorIdle) {
  handle->acceptsQueue = false;
  for (int missing = 0; missing < 4; ++missing) {
    EXPECT_FALSE(monitor->startNotifier());
    EXPECT_EQ(monitor->reachabilityObject(), nullptr);
    EXPECT_EQ(monitor->reachabilitySerialQueue(), nullptr);
    EXPECT_EQ(handle->callback, nullptr);
    handle->acceptsCallback = false;
    handle->throws = missing == 1;
    monitor->stopNotifier();
    if (missing == 2) monitor->setReachabilityRef(nullptr);
  }
  // The handle that was replaced is not let go, nor is its registration.
  handle->acceptsCallback = handle->acceptsQueue = true;
  monitor->setReachabilityRef(handle);
  EXPECT_TRUE(monitor->startNotifier());
  monitor->setReachabilityRef(std::make_shared<HandMadeReachability>());
  handle->deliver(0);
  MainLoop::mainLoop().runPending();
  EXPECT_EQ(notified.size(), 1U);
  monitor->stopNotifier();
  EXPECT_GT(handle.use_count(), 1);
}

TEST_F(OrbiqReachabilityTest, FactoriesAskForTheirTargets) {
  std::vector<std::string> lines;
  SystemLog::setSink([&](const LogLine& line) { lines.emplace_back(line.text); });
  orbiqLogger::sharedLogger().setLoggingMode(LoggingModeWarning);
  const auto source = std::make_shared<HandMadeSource>();
  ASSERT_TRUE(Platform::install({.reachabilitySource = source}).isNull());

  EXPECT_NE(orbiqReachability::reachabilityWithHostname("a.test"), nullptr);
  EXPECT_NE(orbiqReachability::reachabilityWithHostName("b.test"), nullptr);
  EXPECT_EQ(orbiqReachability::reachabilityWithHostname(nullptr), nullptr);
  EXPECT_EQ(orbiqReachability::reachabilityWithHostname(""), nullptr);
  EXPECT_EQ(orbiqReachability::reachabilityWithAddress(nullptr), nullptr);
  const auto internet = orbiqReachability::reachabilityForInternetConnection();
  EXPECT_NE(internet->reachabilityRef(), nullptr);
  EXPECT_TRUE(internet->reachableOnWWAN());
  EXPECT_NE(orbiqReachability::reachabilityForLocalWiFi(), nullptr);
  EXPECT_EQ(source->asked,
            (std::vector<std::string>{"a.test", "b.test", "", "0.0.0.0", "169.254.0.0"}));

  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines[0].find("(WARNING) : "), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("no sockets here"), std::string::npos) << lines[0];
  SystemLog::setSink(nullptr);
}

}  // namespace
}  // namespace orbiq::test
