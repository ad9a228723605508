#pragma once

#include <curl/curl.h>

#include <string_view>

#include "orbiq/services/platform/http/HttpClient.h"

namespace orbiq {

inline constexpr char kNoDescriptor[] = "no descriptor is left for a connection";

/// What this machine had too little of when a transfer failed with this text of libcurl's; null if
/// that was not the cause. A look-up and the reading of certificates do not say so by their number.
const char* shortageBehind(CURLcode code, std::string_view text);

/// What went wrong, by libcurl's number. Without memory for the text, the number must do.
HttpError errorOf(int code, const char* text);

/// A request's result that is nothing but that.
HttpResult failure(int code, const char* text);

}  // namespace orbiq
