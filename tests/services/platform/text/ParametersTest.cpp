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
  MutableString changing("b");
  Parameters parameters{
      {"n", "1"}, {"\xC3\xA9", "2"}, {"n", "late"}, {changing, nullptr}, {"", "3"}};
  EXPECT_EQ(text(parameters), "=3;b=(null);n=1;\xC3\xA9=2;");
  parameters.emplace("a", "4");
  parameters.emplace("n", "late");
  parameters.insert_or_assign(changing, "5");
  changing.setString("d");  // no key follows it
  parameters.insert_or_assign(changing, "6");
  changing.setString("x");
  EXPECT_EQ(text(parameters), "=3;a=4;b=5;d=6;n=1;\xC3\xA9=2;");
  EXPECT_EQ(parameters.at("a"), "4");
  EXPECT_THROW(parameters.at("c"), std::out_of_range);
}

TEST(MutableString, ChangesOnlyWhatItMadeItself) {
  // An overlong form, which is three malformed bytes, and a character of two units.
  EXPECT_EQ(String("\xE0\x80\x80\xF0\x9F\x98\x80").length(), 5U);
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
