// What a description that was made in C is in C++, where Python makes no use of it.
#include <gtest/gtest.h>

#include <string>

#include "orbiq/orbiq.h"
#include "orbiq/orbiq_c.h"

namespace orbiq::test {
namespace {

void takeLine(void* context, int32_t mode, const char* text, size_t length, double seconds) {
  *static_cast<std::string*>(context) = std::to_string(mode) + " " + text + " " +
                                        std::to_string(length) + " " +
                                        std::to_string(static_cast<int>(seconds));
}

TEST(CInterface, DescribesTheHostAndASinkThatWasTakenAwayStaysAway) {
  orbiq_host* const host = orbiq_host_new();
  std::string taken;
  orbiq_host_set_text(host, ORBIQ_CA_BUNDLE, "/ca");
  orbiq_host_set_main_screen(host, 1, 2, 3, 4);
  orbiq_host_set_durable(host, true);
  orbiq_host_set_assume_reachable(host, true);
  orbiq_host_set_log_sink(host, takeLine, &taken);
  EXPECT_EQ(orbiq_host_describe(host, nullptr, 0), ORBIQ_OK);
  const HostDescription& now = HostApplication::current();
  EXPECT_EQ(now.caBundle, "/ca");
  EXPECT_EQ(now.mainScreen.value().nativeScale, 4);
  EXPECT_EQ(now.durability, Durability::PowerLoss);
  EXPECT_TRUE(now.assumeReachable);
  now.logSink({LoggingModeWarning, "line", Date::sinceReferenceDate(1)});
  EXPECT_EQ(taken, "1 line 4 978307201");

  orbiq_remove_log_sink();
  EXPECT_EQ(orbiq_host_describe(host, nullptr, 0), ORBIQ_OK);
  EXPECT_FALSE(HostApplication::current().logSink);
  orbiq_host_free(host);
}

}  // namespace
}  // namespace orbiq::test
