#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "orbiq/services/platform/text/Url.h"

namespace orbiq::test {
namespace {

TEST(UrlTest, takesReferencesByTheGrammarAndKeepsTheirText) {
  struct Case {
    const char* text;
    const char* scheme;
    const char* host;
  };
  const Case cases[] = {
      {"https://auth.example/tag/ABC", "https", "auth.example"},
      {"HTTP://user@Host.Example:8080/a/../b?q=1&r=%20#part", "http", "Host.Example"},
      {"http://[2001:db8::1]:80/", "http", "2001:db8::1"},
      {"//host/path", "", "host"},
      {"http:/path", "http", ""},
      {"mailto:someone", "mailto", ""},
      {"ABC", "", ""},
      {"../up?x", "", ""},
  };
  for (const Case& expected : cases) {
    const auto url = Url::fromText(expected.text);
    ASSERT_TRUE(url) << expected.text;
    EXPECT_EQ(url->text(), expected.text);
    EXPECT_EQ(url->scheme(), expected.scheme) << expected.text;
    EXPECT_EQ(url->host(), expected.host) << expected.text;
  }
  for (const auto& [text, shown] : {std::pair("http://user:p@host/a@b", "http://host/a@b"),
                                    {"//u@[::1]:8/", "//[::1]:8/"},
                                    {"https://@host/", "https://host/"},
                                    {"mailto:a@b", "mailto:a@b"},
                                    {"a@b", "a@b"}}) {
    EXPECT_EQ(Url::fromText(text)->textWithoutUser(), shown);
  }
}

TEST(UrlTest, refusesWhatTheGrammarRefuses) {
  for (const char* text : {"a b",
                           "http://host/caf\xC3\xA9",
                           "http://h\xC3\xB4te/",
                           "a\tb",
                           "a\r\nb",
                           "a\x7F",
                           "100%",
                           "a%2",
                           "%GG",
                           "1a:b",
                           "http://host:port/",
                           "a<b>",
                           "a\"b",
                           "a|b",
                           "a\\b",
                           "a^b",
                           "a`b",
                           "{a}",
                           "http://[::1",
                           "a#b#c"}) {
    EXPECT_FALSE(Url::fromText(text)) << text;
  }
  EXPECT_FALSE(Url::fromText(nullptr));
  EXPECT_FALSE(Url::fromText(""));
  EXPECT_FALSE(Url::fromText(std::string("a\0b", 3)));
  EXPECT_FALSE(Url::fromText(std::string("a\0", 2)));
}

TEST(UrlTest, percentEscapesAllButUnreservedCharacters) {
  EXPECT_EQ(percentEscaped("azAZ09-._~"), "azAZ09-._~");
  EXPECT_EQ(percentEscaped(" &/%\xC3\xA9"), "%20%26%2F%25%C3%A9");
  EXPECT_EQ(percentEscaped("!*'();:@=+$,?#[]"), "%21%2A%27%28%29%3B%3A%40%3D%2B%24%2C%3F%23%5B%5D");
  EXPECT_EQ(percentEscaped(std::string("\0\n\x7F", 3)), "%00%0A%7F");
  EXPECT_EQ(percentEscaped(""), "");
  EXPECT_TRUE(percentEscaped(nullptr).isNull());
}

}  // namespace
}  // namespace orbiq::test
