#include <gtest/gtest.h>
#include <unistd.h>

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
  if (const std::string refusal = enterNetwork(); !refusal.empty()) GTEST_SKIP() << refusal;
  ip("link add v0 type veth peer v1\nlink set v0 up\nlink set v1 up\n"
     "address add 10.0.0.1/24 dev v0\nroute add default via 10.0.0.2");

  RoleProcess process("", {"60"}, program);
  EXPECT_EQ(process.readLine(), "watching the network");
  ip("link set v0 down");
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
