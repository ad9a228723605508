#include "tests/tools/DoctorWorld.h"

#include <unistd.h>

#include <cstdlib>

#include "tests/support/Role.h"

namespace orbiq::test {
namespace {

const RoleRegistration doctor("doctor", [](const auto& arguments) {
  std::vector<std::string> words = commandOf(ORBIQ_DOCTOR);
  std::vector<std::string> variables;
  for (const std::string& argument : arguments) {
    (words.size() == commandOf("").size() && argument.front() != '-' ? variables : words)
        .push_back(argument);
  }
  for (std::string& variable : variables) putenv(variable.data());
  execv(words[0].c_str(), pointersTo(words).data());
  return 127;
});

/// A Date header of a clock that is so far ahead.
std::string dated(std::time_t ahead) {
  const std::time_t time = std::time(nullptr) + ahead;
  char text[64];
  std::strftime(text, sizeof text, "Date: %a, %d %b %Y %H:%M:%S GMT\r\n", std::gmtime(&time));
  return text;
}

}  // namespace

std::string accepted(const std::string& body, int status, std::time_t ahead) {
  return answer(status, body, dated(ahead));
}

Report reportOf(const std::vector<std::string>& arguments) {
  RoleProcess process("doctor", arguments);
  Report report;
  for (std::string line = process.readLine(); !line.empty(); line = process.readLine()) {
    report.text += line + "\n";
  }
  report.exitStatus = process.wait();
  return report;
}

}  // namespace orbiq::test
