#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "orbiq/services/platform/text/Parameters.h"

namespace orbiq {
namespace {

std::string text(const Parameters& parameters) {
  std::string all;
  for (const auto& [key, value] : parameters) {
    all += key.toStdString() + "=" + value.description() + ";";
  }
  return all;
}

TEST(Parameters, StandInTheOrderOfTheirKeysEachOnce) {
  Parameters parameters{{"n", "1"}, {"\xC3\xA9", "2"}, {"n", "late"}, {"N", nullptr}, {"", "3"}};
  EXPECT_EQ(text(parameters), "=3;N=(null);n=1;\xC3\xA9=2;");
  parameters.emplace("a", "4");
  parameters.emplace("n", "late");
  parameters.insert_or_assign("N", "5");
  parameters.insert_or_assign("\xC3\xA9\xC3\xA9", "6");
  parameters.emplace(nullptr, "late");
  EXPECT_EQ(text(parameters), "=3;N=5;a=4;n=1;\xC3\xA9=2;\xC3\xA9\xC3\xA9=6;");
  EXPECT_EQ(parameters.at("a"), "4");
  EXPECT_THROW(parameters.at("b"), std::out_of_range);
  EXPECT_FALSE(parameters.contains("\xC3"));
  EXPECT_FALSE(Parameters().contains(""));
}

TEST(Parameters, DoNotFollowAKeyThatChanges) {
  MutableString key("b");
  Parameters parameters{{key, "1"}};
  parameters.emplace("c", "2");
  key.setString("d");
  EXPECT_EQ(text(parameters), "b=1;c=2;");
  parameters.insert_or_assign(key, "3");
  key.setString("a");
  EXPECT_EQ(text(parameters), "b=1;c=2;d=3;");
}

TEST(MutableString, ChangesOnlyWhatItMadeItself) {
  MutableString changing("own");
  const String sharer = changing;
  const String immutable("immutable");
  static_cast<String&>(changing) = immutable;
  changing.appendString(" no more");
  EXPECT_EQ(changing.toStdString() + "," + immutable.toStdString() + "," + sharer.toStdString(),
            "immutable no more,immutable,own");
  const String late = changing;
  changing.setString("seen");
  EXPECT_EQ(late.toStdString(), "seen");
  static_cast<String&>(changing) = nullptr;
  changing.setString("anew");
  EXPECT_EQ(changing.toStdString() + late.toStdString(), "anewseen");
}

}  // namespace
}  // namespace orbiq
