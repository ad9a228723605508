#include "orbiq/services/platform/http/HttpClient.h"

#include <algorithm>

#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {

bool HttpResponse::IgnoreCase::operator()(std::string_view left,
                                          std::string_view right) const noexcept {
  return std::ranges::lexicographical_compare(left, right, {}, asciiLowerCase, asciiLowerCase);
}

const std::string* HttpResponse::header(std::string_view name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? nullptr : &found->second;
}

}  // namespace orbiq
