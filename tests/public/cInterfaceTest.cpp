// What a description that was made in C is in C++. The rest is tested from Python.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "orbiq/orbiq.h"
#include "orbiq/orbiq_c.h"

namespace orbiq::test {
namespace {

void takeLine(void* context, int32_t mode, const char* text, size_t length, double seconds) {
  *static_cast<std::string*>(context) = std::to_string(mode) + " " + text + " " +
                                        std::to_string(length) + " " +
                                        std::to_string(static_cast<int>(seconds));
}

bool tellIdentifier(void* context, char* buffer, size_t capacity) {
  const auto& text = *static_cast<const std::string*>(context);
  return text.copy(buffer, capacity) > 0;
}

TEST(CInterface, DescribesTheHost) {
  orbiq_host* const host = orbiq_host_new();
  using D = HostDescription;
  const std::tuple<int, const char*, String D::*> texts[]{
      {ORBIQ_BUNDLE_IDENTIFIER, "id", &D::bundleIdentifier},
      {ORBIQ_BUNDLE_NAME, "name", &D::bundleName},
      {ORBIQ_SHORT_VERSION, "1.2", &D::shortVersion},
      {ORBIQ_AUTHORIZATION_SERVER, "https://a.example/", &D::authorizationServer},
      {ORBIQ_LIBRARY_DIRECTORY, "/d", &D::libraryDirectory},
      {ORBIQ_CA_BUNDLE, "/ca", &D::caBundle}};
  for (const auto& [which, text, field] : texts) orbiq_host_set_text(host, which, text);
  orbiq_host_set_main_screen(host, 1, 2, 3, 4);
  orbiq_host_set_durable(host, true);
  orbiq_host_set_assume_reachable(host, true);
  orbiq_host_set_user_interface_idiom(host, 2);
  std::string taken;
  orbiq_host_set_log_sink(host, takeLine, &taken);
  orbiq_host_set_advertising_identifier(host, tellIdentifier, &taken);
  EXPECT_EQ(orbiq_host_describe(host, nullptr, 0), ORBIQ_OK);
  orbiq_host_free(host);

  const HostDescription& now = HostApplication::current();
  for (const auto& [which, text, field] : texts) EXPECT_EQ(now.*field, text);
  EXPECT_EQ(now.mainScreen.value().nativeScale, 4);
  EXPECT_EQ(now.durability, Durability::PowerLoss);
  EXPECT_TRUE(now.assumeReachable);
  EXPECT_EQ(now.userInterfaceIdiom, 2);
  now.logSink({LoggingModeWarning, "line", Date::sinceReferenceDate(1)});
  EXPECT_EQ(taken, "1 line 4 978307201");
  EXPECT_EQ(now.advertisingIdentifier(), taken);
}

TEST(CInterface, ASinkThatWasTakenAwayStaysAway) {
  orbiq_host* const host = orbiq_host_new();
  EXPECT_EQ(orbiq_host_set_log_sink(host, [](auto...) {}, nullptr), ORBIQ_OK);
  for (const bool mayHaveASink : {true, false}) {
    EXPECT_EQ(orbiq_host_describe(host, nullptr, 0), ORBIQ_OK);
    EXPECT_EQ(static_cast<bool>(HostApplication::current().logSink), mayHaveASink);
    orbiq_remove_log_sink();
  }
  orbiq_host_free(host);
}

}  // namespace
}  // namespace orbiq::test
