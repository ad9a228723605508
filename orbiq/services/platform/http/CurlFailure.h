#pragma once

#include <curl/curl.h>

#include <string>
#include <string_view>

#include "orbiq/services/platform/http/HttpClient.h"

namespace orbiq {

inline constexpr char kNoDescriptor[] = "no descriptor is left for a connection";

/// What this machine had too little of when a transfer failed with this text of libcurl's; null if
/// that was not the cause. The number alone does not tell it of a look-up, nor of the reading of
/// certificates.
const char* shortageBehind(CURLcode code, std::string_view text);

/// What went wrong, by libcurl's number. Without memory for the text, the number must do.
HttpError errorOf(int code, const char* text);

/// Adds what the system said, such as "Connection refused", where libcurl says only that it could
/// not connect. Without memory the text stays, here and below.
void addSystemError(CURL* easy, HttpError& error);

/// Says at which URL of a chain of redirects it failed, without the query, whose values may be
/// secret.
void addLastHop(const std::string& url, HttpError& error);

/// A request's result that is nothing but that.
HttpResult failure(int code, const char* text);

}  // namespace orbiq
