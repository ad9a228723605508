#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>

#include "tests/support/NetworkNamespace.h"
#include "tests/support/Role.h"

namespace orbiq::test {
namespace {

class HostLoopTest : public testing::TestWithParam<const char*> {};

TEST_P(HostLoopTest, HearsTheLibraryOnItsMainThread) {
  const std::string program = std::string(ORBIQ_EXAMPLES "/orbiq-host-loop-") + GetParam();
  if (access(program.c_str(), X_OK) != 0) GTEST_SKIP() << "not built: " << program;
  std::string refusal;
  const auto network = NetworkNamespace::enter(refusal);
  if (!network) GTEST_SKIP() << refusal;
  network->addVethPair("v0", "v1");
  for (const char* link : {"v0", "v1"}) network->setUp(link);
  network->addAddress("v0", "10.0.0.1/24");
  network->addDefaultRoute("via 10.0.0.2");

  RoleProcess process("", {"60"}, program);
  EXPECT_EQ(process.readLine(), "watching the network");
  network->setDown("v0");
  std::set<std::string> lines;
  for (std::string line; !(line = process.readLine()).empty();) lines.insert(line);
  EXPECT_EQ(process.wait(), 0);
  EXPECT_EQ(lines, (std::set<std::string>{"a change of the network came on the main thread",
                                          "a timer's firing came on the main thread",
                                          "the return to the foreground came on the main thread"}));
}

INSTANTIATE_TEST_SUITE_P(Examples, HostLoopTest, testing::Values("epoll", "glib", "qt"),
                         [](const auto& loop) { return std::string(loop.param); });

}  // namespace
}  // namespace orbiq::test
