#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "orbiq/services/platform/http/HttpClient.h"

namespace orbiq::test {

inline HttpRequest requestFor(const std::string& url) {
  return HttpRequest{.url = Url::fromText(url).value(), .userAgent = "Agent/1.0"};
}

inline void expectData(const HttpResult& result, int status, std::string_view data) {
  ASSERT_TRUE(result.response) << (result.error ? result.error->text : "no error either");
  EXPECT_EQ(result.response->status, status);
  EXPECT_TRUE(result.data == data) << result.data.value_or("no data").substr(0, 100);
  EXPECT_FALSE(result.error) << result.error->text;
}

inline void expectResponseOnly(const HttpResult& result, int status) {
  EXPECT_EQ(result.response ? result.response->status : 0, status);
  EXPECT_FALSE(result.data);
  ASSERT_TRUE(result.error);
  EXPECT_FALSE(result.error->text.empty());
}

inline void expectNothing(const HttpResult& result) { expectResponseOnly(result, 0); }

}  // namespace orbiq::test
