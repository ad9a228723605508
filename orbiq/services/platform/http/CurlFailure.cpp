#include "orbiq/services/platform/http/CurlFailure.h"

#include <fcntl.h>

#include <cerrno>
#include <new>

#include "orbiq/services/platform/files/Descriptor.h"

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

HttpResult failure(int code, const char* text) {
  return HttpResult{std::nullopt, std::nullopt, errorOf(code, text)};
}

}  // namespace orbiq
