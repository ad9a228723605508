// Requests files of other versions: what an application saved before an upgrade is sent after it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "tests/support/Application.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

/// "requests-1.0.ser" was written by version 1.0.0 and is never to be written again.
/// "requests-newer.ser" is the same with more in each record, and a class that nobody knows.
class Upgrade : public testing::TestWithParam<const char*> {};

TEST_P(Upgrade, AllRequestsAreThere) {
  const TemporaryDirectory directory;
  const std::string path = directory.path() / "requests.ser";
  std::filesystem::copy_file(std::filesystem::path(ORBIQ_SAVED) / GetParam(), path);
  const RequestQueue queue = RequestsFile(path).load();
  ASSERT_EQ(queue.size(), 3U);
  const orbiqRequest& audience = *queue[0];
  const std::string parameters =
      "parameters {\n    cmsPS = 3;\n    cmsVI = 7;\n    title = Größe \xF0\x9F\x8E\xAC;\n}\"";
  EXPECT_EQ(audience.description(),
            "\"serial ABC - request type audience - hote https://hit.example/ABC - " + parameters);
  EXPECT_EQ(audience.creationDate(), Date{800000000.5});
  EXPECT_EQ(audience.auth()->currentSession()->cmsVI(), "7");
  EXPECT_FALSE(audience.auth()->currentAccess()->canSendRequestFor(RequestTypeAudience));
  EXPECT_FALSE(audience.isEqual(audience.copy().get()));
  const orbiqRequest& streaming = *queue[1];
  EXPECT_EQ(streaming.description(),
            "\"serial https://stream.example/x - request type streaming - hote  - " + parameters);
  EXPECT_EQ(streaming.lastFail(), Date{800000200.0});
  EXPECT_EQ(streaming.numberOfFails(), 3U);
  EXPECT_TRUE(streaming.taggerID()->isEqual(std::make_shared<orbiqTaggerID>("ABC", 2, true).get()));
  EXPECT_TRUE(queue[2]->isEqual(std::make_shared<orbiqClearCache>().get()));
}

INSTANTIATE_TEST_SUITE_P(Version, Upgrade,
                         testing::Values("requests-1.0.ser", "requests-newer.ser"));

}  // namespace
}  // namespace orbiq::test
