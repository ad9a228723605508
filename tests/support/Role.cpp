#include "tests/support/Role.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>

namespace orbiq::test {
namespace {

std::map<std::string, Role>& roles() {
  static std::map<std::string, Role> all;
  return all;
}

}  // namespace

RoleRegistration::RoleRegistration(const std::string& name, Role role) { roles()[name] = role; }

int runRole(const std::string& name, const std::vector<std::string>& arguments) {
  const auto role = roles().find(name);
  if (role != roles().end()) return role->second(arguments);
  std::cerr << "no role " << name << "\n";
  return 127;
}

RoleProcess::RoleProcess(const std::string& role, const std::vector<std::string>& arguments,
                         const std::string& program) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  // Resolved here: for an emulated program the kernel's link leads to the emulator.
  const std::string own = std::filesystem::read_symlink("/proc/self/exe");
  std::istringstream emulator(ORBIQ_TEST_EMULATOR);
  std::vector<std::string> words(std::istream_iterator<std::string>(emulator), {});
  words.push_back(program.empty() ? own : program);
  if (!role.empty()) words.insert(words.end(), {"--role", role});
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  const int failed = posix_spawn(&_pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  _output = ends[0];
  if (failed != 0) throw std::runtime_error("cannot run the role " + role);
}

RoleProcess::~RoleProcess() {
  if (_pid > 0) {
    ::kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
  }
  close(_output);
}

std::string RoleProcess::readLine() {
  std::string line;
  char character = 0;
  while (read(_output, &character, 1) == 1 && character != '\n') line += character;
  return line;
}

void RoleProcess::kill(int signal) { ::kill(_pid, signal); }

int RoleProcess::wait() {
  int status = 0;
  waitpid(_pid, &status, 0);
  _pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace orbiq::test
