#include "orbiq/services/platform/http/Redirect.h"

#include <memory>
#include <new>
#include <string_view>

namespace orbiq {
namespace {

constexpr char kNoTarget[] = "the redirect names no target that can be used";

struct CurlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
  void operator()(char* text) const { curl_free(text); }
};

/// False for a reference such as "http:/x" or "///x", whose host libcurl would guess.
bool leavesNothingToGuess(std::string_view reference) {
  const std::size_t delimiter = reference.find_first_of(":/?#");
  if (delimiter == reference.npos || reference[delimiter] != ':') {
    return !reference.starts_with("///");
  }
  const std::string_view rest = reference.substr(delimiter + 1);
  return rest.starts_with("//") && !rest.starts_with("///");
}

std::string part(CURLU* url, CURLUPart which) {
  char* text = nullptr;
  if (curl_url_get(url, which, &text, 0) == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  const std::unique_ptr<char, CurlFree> owner(text);
  return text == nullptr ? std::string() : text;
}

std::optional<std::string> lastHeader(CURL* easy, const char* name) {
  curl_header* header = nullptr;
  if (curl_easy_header(easy, name, 0, CURLH_HEADER, -1, &header) != CURLHE_OK) return std::nullopt;
  curl_easy_header(easy, name, header->amount - 1, CURLH_HEADER, -1, &header);
  const std::string_view value = header->value;
  // libcurl leaves the line's end in a value that is empty otherwise.
  return std::string(value.substr(0, value.find_last_not_of("\r\n") + 1));
}

}  // namespace

void readResponse(CURL* easy, HttpResponse& response) {
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  response.status = static_cast<int>(status);
  response.location = lastHeader(easy, "Location");
  response.date = lastHeader(easy, "Date");
}

bool isRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

Redirect redirectOf(const std::string& url, const HttpResponse& response) {
  if (!isRedirect(response.status)) return {};
  const std::string location = response.location.value_or("");
  if (location.empty()) return {{}, kNoTarget};

  const std::unique_ptr<CURLU, CurlFree> parts(curl_url());
  if (!parts) throw std::bad_alloc();
  const CURLUcode own = curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), 0);
  if (own == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (own != CURLUE_OK) return {{}, kNoTarget};
  const std::string before = part(parts.get(), CURLUPART_SCHEME);
  // Servers send blanks and UTF-8 unescaped here. A scheme of another kind is told below.
  constexpr unsigned kLenient = CURLU_URLENCODE | CURLU_ALLOW_SPACE | CURLU_NON_SUPPORT_SCHEME;
  const CURLUcode refusal = curl_url_set(parts.get(), CURLUPART_URL, location.c_str(), kLenient);
  if (refusal == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (refusal != CURLUE_OK) return {{}, kNoTarget};
  const std::string after = part(parts.get(), CURLUPART_SCHEME);
  if (after != "http" && after != "https") {
    return {{}, "the redirect leads to neither http nor https"};
  }
  if (!leavesNothingToGuess(location)) return {{}, kNoTarget};
  if (before == "https" && after == "http") return {{}, "the redirect leads from https to http"};
  curl_url_set(parts.get(), CURLUPART_USER, nullptr, 0);
  curl_url_set(parts.get(), CURLUPART_PASSWORD, nullptr, 0);
  return {part(parts.get(), CURLUPART_URL), nullptr};
}

}  // namespace orbiq
