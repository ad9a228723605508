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
class Upgrade : public testing::TestWithParam<const char*> {
 protected:
  RequestQueue load() {
    const auto copy = _directory.path() / "requests.ser";
    std::filesystem::copy_file(std::filesystem::path(ORBIQ_SAVED) / GetParam(), copy);
    return _file.load(copy);
  }

 private:
  TemporaryDirectory _directory;
  RequestsFile _file;
};

TEST_P(Upgrade, AllRequestsAreThere) {
  const RequestQueue queue = load();
  ASSERT_EQ(queue.size(), 3U);

  const orbiqRequest& audience = *queue[0];
  EXPECT_EQ(audience.requestType(), RequestTypeAudience);
  EXPECT_EQ(audience.sendingMode(), SendingModeHost);
  EXPECT_EQ(audience.serial().toStdString(), "ABC");
  ASSERT_TRUE(audience.creationDate());
  EXPECT_EQ(audience.creationDate()->secondsSinceReferenceDate, 800000000.5);
  EXPECT_FALSE(audience.lastFail());
  ASSERT_TRUE(audience.auth());
  EXPECT_EQ(audience.auth()->currentSession()->cmsVI().toStdString(), "7");
  EXPECT_EQ(audience.auth()->currentAccess()->host().toStdString(), "https://hit.example/ABC");
  // Restricted, and its one hit was sent.
  EXPECT_FALSE(audience.auth()->currentAccess()->canSendRequestFor(RequestTypeAudience));

  const orbiqRequest& streaming = *queue[1];
  EXPECT_EQ(streaming.requestType(), RequestTypeStreaming);
  EXPECT_EQ(streaming.sendingMode(), SendingModeSerialWithStop);
  EXPECT_EQ(streaming.serial().toStdString(), "https://stream.example/x");
  EXPECT_EQ(streaming.numberOfFails(), 3U);
  EXPECT_EQ(streaming.status(), RequestStatusSending);
  ASSERT_TRUE(streaming.lastFail());
  EXPECT_EQ(streaming.lastFail()->secondsSinceReferenceDate, 800000200.0);
  EXPECT_FALSE(streaming.auth());
  EXPECT_TRUE(streaming.taggerID()->isEqual(std::make_shared<orbiqTaggerID>("ABC", 2, true).get()));
  ASSERT_TRUE(streaming.parameters());
  EXPECT_EQ(streaming.parameters()->at("title").toStdString(), "Größe \xF0\x9F\x8E\xAC");
  EXPECT_EQ(streaming.parameters(), audience.parameters());

  EXPECT_TRUE(queue[2]->isEqual(std::make_shared<orbiqClearCache>().get()));
}

INSTANTIATE_TEST_SUITE_P(Version, Upgrade,
                         testing::Values("requests-1.0.ser", "requests-newer.ser"));

}  // namespace
}  // namespace orbiq::test
