#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "orbiq/services/platform/text/String.h"
#include "orbiq/services/platform/text/Url.h"

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

/// The last hop's answer, with the headers that somebody reads. Of a repeated one the last value.
struct HttpResponse {
  int status = 0;
  /// Where a redirect leads.
  std::optional<std::string> location;
  /// The server's clock, as it was sent.
  std::optional<std::string> date;
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
