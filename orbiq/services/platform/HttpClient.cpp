#include "orbiq/services/platform/HttpClient.h"

#include <algorithm>

namespace orbiq {
namespace {

/// ASCII only, so that the host's locale has no say in what a header is called.
constexpr char lowerCase(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                              : character;
}

}  // namespace

bool HttpResponse::IgnoreCase::operator()(std::string_view left,
                                          std::string_view right) const noexcept {
  return std::ranges::lexicographical_compare(left, right, {}, lowerCase, lowerCase);
}

const std::string* HttpResponse::header(std::string_view name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? nullptr : &found->second;
}

}  // namespace orbiq
