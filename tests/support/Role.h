#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orbiq::test {

using Role = int (*)(const std::vector<std::string>& arguments);

/// Defines what this program does when it is run again as `--role NAME ARGUMENTS...`. For
/// namespace-scope constants of test files.
struct RoleRegistration {
  RoleRegistration(const std::string& name, Role role);
};
int runRole(const std::string& name, const std::vector<std::string>& arguments);

/// This program, or a copy of it, run again in a role; or, without a role, another one that was
/// built with it. Its standard output can be read line by line.
class RoleProcess {
 public:
  RoleProcess(const std::string& role, const std::vector<std::string>& arguments,
              const std::string& program = {});
  /// Kills what still runs.
  ~RoleProcess();
  RoleProcess(const RoleProcess&) = delete;
  RoleProcess& operator=(const RoleProcess&) = delete;

  /// Waits for the next line of output; empty at its end.
  std::string readLine();
  void kill(int signal);
  /// Waits for the end. The exit code, or 128 + the signal that ended it.
  int wait();

 private:
  pid_t _pid = -1;
  int _output = -1;
};

}  // namespace orbiq::test
