#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <string>

#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/loop/NotificationCenter.h"
#include "orbiq/services/platform/loop/SerialQueue.h"
#include "tests/support/HttpExpectations.h"
#include "tests/support/RunOn.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq {
namespace {

/// Whether a forked child found the statement true.
bool holdsInChild(const std::function<bool()>& statement) {
  const pid_t child = fork();
  if (child == 0) _exit(statement() ? 0 : 1);
  int status = -1;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(ForkGuardTest, ServicesKeepStillInTheChildAndGoOnInTheParent) {
  MainLoop& loop = MainLoop::mainLoop();
  NotificationCenter& center = NotificationCenter::defaultCenter();
  const test::ScriptedServer server([](const std::string&) { return test::answer(200); });
  const auto http = makeHttpClient("");
  SerialQueue queue("forked");
  int calls = 0;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::promise<void> readable;
  test::runOn(queue, [&] { ++calls; });
  center.addObserver(&calls, "forked", [&](const Notification&) { ++calls; });
  loop.watch(ends[0], [&] {
    loop.unwatch(ends[0]);
    readable.set_value();
  });

  EXPECT_TRUE(holdsInChild([&] {
    queue.async([&] { ++calls; });
    SerialQueue("fresh").async([&] { ++calls; });
    center.postNotificationName("forked");
    loop.post([&] { ++calls; });
    loop.removeTimer(loop.addTimer({}, false, [&] { ++calls; }));
    const HttpResult sent = http->send(test::requestFor(server.url()));
    // Would end the parent's watch: the kernel's table is shared.
    loop.unwatch(ends[0]);
    loop.run();
    return loop.adopt() == -1 && calls == 1 && sent.error && !sent.response;
  }));

  ASSERT_EQ(write(ends[1], "x", 1), 1);
  readable.get_future().wait();
  center.postNotificationName("forked");
  test::runOn(queue, [&] { ++calls; });
  EXPECT_EQ(calls, 3);
}

}  // namespace
}  // namespace orbiq
