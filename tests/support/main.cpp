#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/Role.h"
#include "tests/support/TemporaryDirectory.h"

/// Each test runs in a process of its own, with a state directory of its own and no proxy. A test
/// that needs a second process runs this program again in a named role.
int main(int argc, char** argv) {
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY",
                           "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
    unsetenv(name);
  }
  if (argc > 2 && std::string(argv[1]) == "--role") {
    return orbiq::test::runRole(argv[2], {argv + 3, argv + argc});
  }
  const orbiq::test::TemporaryDirectory stateDirectory;
  setenv("XDG_STATE_HOME", stateDirectory.path().c_str(), 1);
  unsetenv("ORBIQ_LIBRARY_DIRECTORY");
  unsetenv("ORBIQ_AUTHORIZATION_SERVER");
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
