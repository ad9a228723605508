// What the real doctor tells people, and when.
#include <gtest/gtest.h>

#include <future>
#include <string>

#include "tests/support/Role.h"
#include "tests/support/ScriptedServer.h"

namespace orbiq::test {
namespace {

TEST(DoctorInText, TellsOfEachStepAtOnceAndOfAllThatFailedAtTheEnd) {
  std::promise<void> heard;
  // Nothing is answered before the doctor has told of the connection.
  const ScriptedServer server([isHeard = heard.get_future().share()](const std::string&) {
    isHeard.wait();
    return answer(200, "access=denied|host=http://127.0.0.1/|cmsVI=7");
  });
  RoleProcess doctor(
      "", {"--server", server.url(), "--serial", "S", "--ca-bundle", "/none", "--assume-reachable"},
      ORBIQ_DOCTOR);
  bool isTold = false;
  for (std::string line; !(line = doctor.readLine()).empty();) {
    if (line != "ok        Connection") continue;
    isTold = true;
    heard.set_value();
  }
  EXPECT_TRUE(isTold);
  if (!isTold) heard.set_value();
  std::string end;
  for (std::string line; !(line = doctor.readLine()).empty();) end += line + "\n";
  EXPECT_EQ(doctor.wait(), 3);
  for (const std::string step : {"Description and environment", "Access"}) {
    EXPECT_NE(end.find("Failed at \"" + step + "\": "), std::string::npos) << end;
  }
}

}  // namespace
}  // namespace orbiq::test
