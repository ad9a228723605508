#include "orbiq/services/platform/http/CurlFailure.h"

#include <fcntl.h>

#include <new>

#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq {
namespace {

bool isExhaustion(int code) { return code == CURLE_OUT_OF_MEMORY || code == CURLE_FAILED_INIT; }

}  // namespace

bool lacksForLookUp(CURLcode code) {
  if (code != CURLE_COULDNT_RESOLVE_HOST && code != CURLE_COULDNT_RESOLVE_PROXY &&
      code != CURLE_SSL_CACERT_BADFILE) {
    return false;
  }
  Descriptor needed[3];
  for (Descriptor& each : needed) each = Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
  return !needed[2].isOpen();
}

HttpError errorOf(int code, const char* text) try {
  return HttpError{code, text, isExhaustion(code)};
} catch (const std::bad_alloc&) {
  return HttpError{code, {}, isExhaustion(code)};
}

HttpResult failure(int code, const char* text) {
  return HttpResult{std::nullopt, std::nullopt, errorOf(code, text)};
}

}  // namespace orbiq
