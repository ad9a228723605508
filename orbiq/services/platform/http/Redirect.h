#pragma once

#include <curl/curl.h>

#include <string>

#include "orbiq/services/platform/http/HttpClient.h"

namespace orbiq {

/// Reads the status and the headers that the transfer has brought: not those of a proxy, of
/// informational answers, and of a body's end. The status is set even if `std::bad_alloc` is thrown
/// for a header.
void readResponse(CURL* easy, HttpResponse& response);

/// What to make of a response that may be a redirect. Both empty: it is none.
struct Redirect {
  /// The URL to go on with, without a user's name and password.
  std::string target;
  /// Why it is not followed.
  const char* refusal = nullptr;
};

/// Whether a response with this status leads elsewhere.
bool isRedirect(int status);

/// Where a response from `url` leads to: to http and https alone, and never from https to http.
Redirect redirectOf(const std::string& url, const HttpResponse& response);

}  // namespace orbiq
