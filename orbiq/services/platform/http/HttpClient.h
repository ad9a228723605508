#pragma once

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/text/Url.h"
#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {

/// A GET. Nothing but the User-Agent is added to what HTTP itself asks for; a user's name and
/// password in the URL are left out.
struct HttpRequest {
  Url url;
  String userAgent;
  /// For the whole exchange, redirects included.
  std::chrono::milliseconds timeout = kUsualTimeout;

  static constexpr std::chrono::milliseconds kUsualTimeout{60'000};
};

struct HttpResponse {
  struct IgnoreCase {
    using is_transparent = void;
    bool operator()(std::string_view left, std::string_view right) const noexcept {
      return std::ranges::lexicographical_compare(left, right, {}, asciiLowerCase, asciiLowerCase);
    }
  };
  int status = 0;
  /// Of the last hop; of a repeated name the last value.
  std::map<std::string, std::string, IgnoreCase> headers;

  /// The value of a header, whatever the case of its name; null if it is not there.
  const std::string* header(std::string_view name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? nullptr : &found->second;
  }
};

/// Why a transfer did not end well, or why a redirect was not followed. Its codes are the HTTP
/// client's own and never those of the agent's errors.
struct HttpError {
  /// A number of libcurl's (CURLcode). That some are equal to the agent's codes means nothing.
  int code = 0;
  std::string text;
  /// Memory or descriptors had run out: what could not be had now says nothing of the server.
  bool isExhaustion = false;
};

/// Three things apart, because they can come apart.
struct HttpResult {
  /// There as soon as the last hop's status and headers arrived, whatever became of the body.
  std::optional<HttpResponse> response;
  /// There only if the transfer ended complete and within bounds; may be empty.
  std::optional<std::string> data;
  std::optional<HttpError> error;
};

/// Sends one request at a time and waits for its end. Where memory or descriptors run out, that is
/// the result's error; the next send may find some again.
class HttpClient {
 public:
  virtual ~HttpClient() = default;
  virtual HttpResult send(const HttpRequest& request) = 0;
};

/// Initialises the transfer library for the process and, after it, the exit handler that keeps a
/// send in progress from holding up or crashing the process's end. Call it once, on the thread that
/// creates the agent. False if that failed; a send tries it again. Later calls do nothing.
bool prepareHttpForProcess();

/// A client over real sockets. One thread at a time. It keeps one connection between sends, and
/// takes another if anything lies there that nobody asked for. It sends a request again, once and
/// over a new connection, only if the kept one ended without one byte of an answer. It counts as
/// ended when nothing was acknowledged for five seconds. `caBundle` names a file of trusted
/// certificates; empty means the system's.
std::unique_ptr<HttpClient> makeHttpClient(const std::string& caBundle);

}  // namespace orbiq
