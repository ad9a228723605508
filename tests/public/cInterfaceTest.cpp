#include <gtest/gtest.h>

#include <array>
#include <string>

#include "orbiq/orbiq.h"
#include "orbiq/orbiq_c.h"

namespace orbiq::test {
namespace {

TEST(CInterface, DescribesTheHost) {
  orbiq_host* const host = orbiq_host_new();
  const HostDescription& before = HostApplication::current();
  EXPECT_EQ(orbiq_host_set_text(host, ORBIQ_AUTHORIZATION_SERVER, "no URL"), ORBIQ_OK);
  char reason[400] = "untouched";
  EXPECT_EQ(orbiq_host_describe(host, reason, sizeof reason), ORBIQ_ERROR_REFUSED);
  EXPECT_NE(std::string(reason).find("no URL"), std::string::npos);
  EXPECT_EQ(orbiq_host_describe(nullptr, reason, sizeof reason), ORBIQ_ERROR_ARGUMENT);
  EXPECT_STREQ(reason, orbiq_status_text(ORBIQ_ERROR_ARGUMENT));
  EXPECT_EQ(&HostApplication::current(), &before);

  const std::array<const char*, 6> texts = {"id", "name", "1.2", "https://a.example/", "/d", "/ca"};
  for (int which = 0; which < 6; ++which) {
    EXPECT_EQ(orbiq_host_set_text(host, which, texts[static_cast<std::size_t>(which)]), ORBIQ_OK);
  }
  EXPECT_EQ(orbiq_host_set_main_screen(host, 1, 2, 3, 4), ORBIQ_OK);
  EXPECT_EQ(orbiq_host_set_durable(host, true), ORBIQ_OK);
  EXPECT_EQ(orbiq_host_set_assume_reachable(host, true), ORBIQ_OK);
  for (const int idiom : {-1, 3, 99}) {
    EXPECT_EQ(orbiq_host_set_user_interface_idiom(host, idiom), ORBIQ_ERROR_ARGUMENT);
  }
  EXPECT_EQ(orbiq_host_set_user_interface_idiom(host, 2), ORBIQ_OK);
  EXPECT_EQ(orbiq_host_describe(host, reason, sizeof reason), ORBIQ_OK);
  EXPECT_STREQ(reason, "");
  orbiq_host_free(host);

  const HostDescription& now = HostApplication::current();
  for (const auto& [text, wanted] :
       {std::pair(now.bundleIdentifier, texts[0]), std::pair(now.bundleName, texts[1]),
        std::pair(now.shortVersion, texts[2]), std::pair(now.authorizationServer, texts[3]),
        std::pair(now.libraryDirectory, texts[4]), std::pair(now.caBundle, texts[5])}) {
    EXPECT_EQ(text.view(), wanted);
  }
  ASSERT_TRUE(now.mainScreen);
  EXPECT_EQ(now.mainScreen->width, 1);
  EXPECT_EQ(now.mainScreen->height, 2);
  EXPECT_EQ(now.mainScreen->scale, 3);
  EXPECT_EQ(now.mainScreen->nativeScale, 4);
  EXPECT_EQ(now.durability, Durability::PowerLoss);
  EXPECT_TRUE(now.assumeReachable);
  EXPECT_EQ(now.userInterfaceIdiom, 2);
}

TEST(CInterface, RefusesAMissingBufferBeforeAnythingIsMade) {
  EXPECT_EQ(orbiq_statistics_json(nullptr, 1, nullptr), ORBIQ_ERROR_ARGUMENT);
  EXPECT_EQ(orbiq_last_failure(nullptr, 1, nullptr), ORBIQ_ERROR_ARGUMENT);
  EXPECT_EQ(orbiq_device_identifier(nullptr, 1, nullptr), ORBIQ_ERROR_ARGUMENT);
  orbiq_host* const host = orbiq_host_new();
  EXPECT_EQ(orbiq_host_describe(host, nullptr, 0), ORBIQ_OK);  // it is not too late
  orbiq_host_free(host);
}

TEST(CInterface, CopiesTextsAndCountsInside) {
  orbiq_tagger* tagger = nullptr;
  ASSERT_EQ(orbiq_tagger_with_serial("ABC", &tagger), ORBIQ_OK);
  std::string text = "aé€";
  EXPECT_EQ(orbiq_tagger_set_text(tagger, ORBIQ_NEW_LEVEL_1, text.c_str()), ORBIQ_OK);
  text.assign("other");
  char buffer[4] = {'?', '?', '?', '?'};
  std::size_t length = 0;
  EXPECT_EQ(orbiq_tagger_get_text(tagger, ORBIQ_NEW_LEVEL_1, buffer, 3, &length),
            ORBIQ_ERROR_BUFFER);
  EXPECT_EQ(std::string(buffer, 4), std::string("a\0??", 4));
  EXPECT_EQ(length, 6U);
  std::array<unsigned char, 12> part{};
  part.fill(0xFF);
  EXPECT_EQ(orbiq_get_statistics(reinterpret_cast<orbiq_statistics*>(part.data()), 8), ORBIQ_OK);
  EXPECT_EQ(part[0] + part[7], 0);
  EXPECT_EQ(part[8], 0xFF);
}

}  // namespace
}  // namespace orbiq::test
