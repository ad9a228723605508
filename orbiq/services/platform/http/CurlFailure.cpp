#include "orbiq/services/platform/http/CurlFailure.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/http/LibcurlProcess.h"

namespace orbiq {
namespace {

bool isExhaustion(int code) { return code == CURLE_OUT_OF_MEMORY || code == CURLE_FAILED_INIT; }

bool lacksDescriptors() {
  Descriptor needed[3];
  for (Descriptor& each : needed) {
    each = Descriptor(open("/", O_PATH | O_CLOEXEC));
    if (!each.isOpen()) return errno == EMFILE || errno == ENFILE;
  }
  return false;
}

}  // namespace

const char* shortageBehind(CURLcode code, std::string_view text) {
  if (libcurlRanOutOfMemory()) return "out of memory";
  const bool saysNothing = code == CURLE_COULDNT_RESOLVE_HOST ||
                           code == CURLE_COULDNT_RESOLVE_PROXY || code == CURLE_SSL_CACERT_BADFILE;
  if (saysNothing && lacksDescriptors()) return kNoDescriptor;
  // A look-up's thread has a socket pair, too.
  const bool isWithoutThread = text == "getaddrinfo() thread failed to start";
  return isWithoutThread ? "no thread is left for a look-up" : nullptr;
}

HttpError errorOf(int code, const char* text) try {
  // Of an address that it cannot read libcurl shows all, with the password.
  if (std::string_view(text).starts_with("Unsupported proxy")) {
    text = "the proxy's address cannot be used";
  }
  return HttpError{code, text, isExhaustion(code)};
} catch (const std::bad_alloc&) {
  return HttpError{code, {}, isExhaustion(code)};
}

void addSystemError(CURL* easy, HttpError& error) try {
  long number = 0;
  curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &number);
  const char* const text = strerrordesc_np(static_cast<int>(number));
  if (number != 0 && text != nullptr) error.text.append(": ").append(text);
} catch (const std::bad_alloc&) {
}

void addLastHop(const std::string& url, HttpError& error) try {
  constexpr std::size_t kLongest = 200;
  const std::size_t end = std::min(url.find_first_of("?#"), kLongest);
  error.text = "redirected to " + url.substr(0, end) + ": " + error.text;
} catch (const std::bad_alloc&) {
}

HttpResult failure(int code, const char* text) {
  return HttpResult{std::nullopt, std::nullopt, errorOf(code, text)};
}

}  // namespace orbiq
