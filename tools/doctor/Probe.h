#pragma once

#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/text/Url.h"
#include "orbiq/services/platform/time/Date.h"

/// What the library's own HTTP client does not tell. The same transfer library tells it, under the
/// same settings.
namespace orbiq::doctor {

/// How a connection would begin.
struct Way {
  bool isOverProxy = false;
  std::string address;  ///< a proxy's: "192.0.2.7 port 3128"; not to be used without one
  std::string failure;  ///< why the proxy's name has no address; empty if it has one
};

/// Asks the transfer library which proxy it would take. Sends nothing.
Way wayTo(const Url& url);

struct Certificate {
  std::string subject;
  std::string issuer;
  std::string names;  ///< "DNS:auth.example, IP Address:192.0.2.7"
  std::optional<Date> validFrom;
  std::optional<Date> validUntil;
};

/// What is checked of a server's certificates.
struct Checks {
  bool chain = false;
  bool name = false;
};

struct Connected {
  CURLcode code = CURLE_OK;
  std::string error;
  /// A connection to the server or to the proxy was made, whatever came of it.
  bool isMade = false;
  long proxyStatus =
      0;                ///< how the proxy answered a CONNECT; 0 if it was not asked or said nothing
  std::string address;  ///< of the other end
  std::vector<Certificate> chain;  ///< the server's own certificate first
};

/// Makes a connection, over TLS for https, and sends no request over it. Waits at most 10 seconds.
Connected connectTo(const Url& url, const std::string& caBundle, Checks checks);

/// A request that follows no redirect.
struct Hop {
  HttpResult result;
  bool isOverKeptConnection = false;
  double seconds = 0;
};

/// Sends requests one after the other, over a kept connection where the server lets it.
class Prober {
 public:
  explicit Prober(const std::string& caBundle);
  ~Prober();
  Prober(const Prober&) = delete;
  Prober& operator=(const Prober&) = delete;
  Hop get(const std::string& url, const std::string& userAgent);

 private:
  const std::string _caBundle;
  CURL* _easy;
};

}  // namespace orbiq::doctor
