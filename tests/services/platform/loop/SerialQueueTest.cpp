#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "orbiq/services/platform/loop/SerialQueue.h"
#include "tests/support/NothingAllowed.h"
#include "tests/support/Role.h"
#include "tests/support/RunOn.h"

namespace orbiq {
namespace {

/// Tells when the thread that holds it ends.
struct ThreadEnd {
  std::promise<void>* ended = nullptr;
  ~ThreadEnd() {
    if (ended != nullptr) ended->set_value();
  }
};

TEST(SerialQueueTest, ThreadIsNamedTakesNoSignalsAndEndsWhenIdleOrDestroyed) {
  const auto markThread = [](std::promise<void>& ended) {
    static thread_local ThreadEnd end;
    end.ended = &ended;
  };
  std::promise<void> idle;
  std::promise<void> destroyed;
  std::atomic<int> rests = 0;
  {
    SerialQueue queue("com.vorlune.reachability", [&] { ++rests; });
    test::runOn(queue, [&] {
      markThread(idle);
      char name[16];
      pthread_getname_np(pthread_self(), name, sizeof name);
      EXPECT_STREQ(name, "com.vorlune.rea");
      sigset_t blocked;
      pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
      for (const int signal : {SIGTERM, SIGALRM, SIGPIPE, SIGUSR1}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
      }
    });
    sigset_t own;
    pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0);
    idle.get_future().wait();
    EXPECT_EQ(rests, 1);
    test::runOn(queue, [&] { markThread(destroyed); });
  }
  destroyed.get_future().wait();
  EXPECT_EQ(rests, 1) << "nothing is idle about an end";
}

TEST(SerialQueueTest, TasksOutliveTheQueueAndEachOther) {
  std::promise<int> last;
  auto queue = std::make_unique<SerialQueue>("gone");
  queue->async([] { throw std::runtime_error("ends with its task"); });
  std::promise<void> gate;
  queue->async([&] {
    gate.get_future().wait();
    queue.reset();
  });
  queue->async([&] { last.set_value(1); });
  gate.set_value();
  EXPECT_EQ(last.get_future().get(), 1);
}

/// Uses queues while no thread can be started. Exits 0 if all tasks have run.
const test::RoleRegistration starving("starving", [](const auto&) {
  // The limit on threads does not bind root.
  if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) return 2;
  std::optional<test::NothingAllowed> threads(RLIMIT_NPROC);
  std::string order;
  SerialQueue queue("starved");
  queue.async([&] { order += 'A'; });
  std::promise<void> outlived;
  auto gone = std::make_unique<SerialQueue>("gone");
  gone->async([&] { outlived.set_value(); });
  threads.reset();
  gone.reset();
  outlived.get_future().wait();
  test::runOn(queue, [&] { order += 'B'; });
  return order == "AB" ? 0 : 3;
});

TEST(SerialQueueTest, LosesNothingWithoutThreads) {
  EXPECT_EQ(test::RoleProcess("starving", {}).wait(), 0);
}

}  // namespace
}  // namespace orbiq
