#pragma once

#include <curl/curl.h>

#include "orbiq/services/platform/http/HttpClient.h"

namespace orbiq {

/// Whether a transfer failed because the process has no descriptors or threads left: a look-up and
/// the reading of certificates do not say so themselves.
bool lacksForLookUp(CURLcode code);

/// What went wrong, by libcurl's number. Without memory for the text, the number must do.
HttpError errorOf(int code, const char* text);

/// A request's result that is nothing but that.
HttpResult failure(int code, const char* text);

}  // namespace orbiq
