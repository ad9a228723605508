#include <gtest/gtest.h>

#include <string>

#include "orbiq/services/platform/text/Url.h"

namespace orbiq::test {
namespace {

TEST(UrlTest, takesReferencesByTheGrammarAndKeepsTheirText) {
  const struct {
    const char* text;
    const char* scheme;
    const char* host;
    const char* withoutUser = nullptr;  ///< null for the same
  } cases[] = {
      {"HTTP://user:p@Host.Example:8080/a/../b?q=1&r=%20#part@", "http", "Host.Example",
       "HTTP://Host.Example:8080/a/../b?q=1&r=%20#part@"},
      {"http://[2001:db8::1]:80/", "http", "2001:db8::1"},
      {"//@host/path", "", "host", "//host/path"},
      {"http:/path", "http", ""},
      {"mailto:a@b", "mailto", ""},
      {"ABC", "", ""},
      {"../up?x", "", ""},
  };
  for (const auto& [text, scheme, host, withoutUser] : cases) {
    const auto url = Url::fromText(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->text(), text);
    EXPECT_EQ(url->scheme(), scheme) << text;
    EXPECT_EQ(url->host(), host) << text;
    EXPECT_EQ(url->textWithoutUser(), withoutUser ? withoutUser : text);
  }
  for (const char* text :
       {"", "a b", "http://host/caf\xC3\xA9", "http://h\xC3\xB4te/", "a\r\nb", "100%", "a%2", "%GG",
        "1a:b", "http://host:port/", "a<b>", "a|b", "{a}", "http://[::1", "a#b#c"}) {
    EXPECT_FALSE(Url::fromText(text)) << text;
  }
  EXPECT_FALSE(Url::fromText(nullptr));
  EXPECT_FALSE(Url::fromText(std::string("a\0", 2)));
}

TEST(UrlTest, percentEscapesAllButUnreservedCharacters) {
  EXPECT_EQ(percentEscaped("azAZ09-._~ &/%\xC3\xA9"), "azAZ09-._~%20%26%2F%25%C3%A9");
  EXPECT_EQ(percentEscaped("!*'();:@=+$,?#[]"), "%21%2A%27%28%29%3B%3A%40%3D%2B%24%2C%3F%23%5B%5D");
  EXPECT_EQ(percentEscaped(std::string("\0\n\x7F", 3)), "%00%0A%7F");
  EXPECT_TRUE(percentEscaped(nullptr).isNull());
}

}  // namespace
}  // namespace orbiq::test
