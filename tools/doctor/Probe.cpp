#include "tools/doctor/Probe.h"

#include <netdb.h>

#include <ctime>
#include <string_view>
#include <utility>

#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/http/CurlFailure.h"
#include "orbiq/services/platform/http/Redirect.h"

namespace orbiq::doctor {
namespace {

constexpr long kConnectMilliseconds = 10'000;  // a hit's whole exchange may take no longer
constexpr std::size_t kMostBodyBytes = std::size_t{1} << 20;
/// For documentation only, so nobody is ever asked there.
constexpr char kPlaceholder[] = "192.0.2.1 port 9";

struct Handle {
  CURL* const easy = curl_easy_init();
  char errorText[CURL_ERROR_SIZE] = "";

  Handle() = default;
  ~Handle() { curl_easy_cleanup(easy); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
};

struct List {
  curl_slist* first = nullptr;

  explicit List(const std::string& text) : first(curl_slist_append(nullptr, text.c_str())) {}
  ~List() { curl_slist_free_all(first); }
  List(const List&) = delete;
  List& operator=(const List&) = delete;
};

void setUp(CURL* easy, const std::string& url, const std::string& caBundle, char* errorText) {
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  curl_easy_setopt(easy, CURLOPT_HTTP09_ALLOWED, 0L);
  curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
  if (!caBundle.empty()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, caBundle.c_str());
    curl_easy_setopt(easy, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  }
}

std::string errorOf(CURLcode code, const char* text) {
  if (code == CURLE_OK) return {};
  return orbiq::errorOf(code, text[0] != '\0' ? text : curl_easy_strerror(code)).text;
}

double secondsOf(CURL* easy, CURLINFO which) {
  curl_off_t microseconds = 0;
  curl_easy_getinfo(easy, which, &microseconds);
  return static_cast<double>(microseconds) / 1e6;
}

std::string peerOf(CURL* easy) {
  const char* address = nullptr;
  long port = 0;
  curl_easy_getinfo(easy, CURLINFO_PRIMARY_IP, &address);
  curl_easy_getinfo(easy, CURLINFO_PRIMARY_PORT, &port);
  if (address == nullptr || *address == '\0') return {};
  return address + std::string(" port ") + std::to_string(port);
}

/// Notes where the first connection would lead to, and makes none.
curl_socket_t refuseSocket(void* user, curlsocktype, curl_sockaddr* wanted) {
  std::string& first = *static_cast<std::string*>(user);
  if (!first.empty()) return CURL_SOCKET_BAD;
  char address[NI_MAXHOST] = "?";
  char port[NI_MAXSERV] = "?";
  getnameinfo(&wanted->addr, wanted->addrlen, address, sizeof address, port, sizeof port,
              NI_NUMERICHOST | NI_NUMERICSERV);
  first = address + std::string(" port ") + port;
  return CURL_SOCKET_BAD;
}

std::optional<Date> dateOf(const char* text) {
  const std::time_t time = curl_getdate(text, nullptr);
  if (time == -1) return std::nullopt;
  return Date::since1970(static_cast<double>(time));
}

void takeLine(std::string_view line, Certificate& certificate) {
  const auto take = [&line](std::string_view key) {
    if (!line.starts_with(key)) return false;
    line.remove_prefix(key.size());
    return true;
  };
  if (take("Subject:")) certificate.subject = line;
  if (take("Issuer:")) certificate.issuer = line;
  if (take("Start date:")) certificate.validFrom = dateOf(std::string(line).c_str());
  if (take("Expire date:")) certificate.validUntil = dateOf(std::string(line).c_str());
  if (take("X509v3 Subject Alternative Name:")) certificate.names = line;
}

std::vector<Certificate> chainOf(CURL* easy) {
  std::vector<Certificate> chain;
  const curl_certinfo* info = nullptr;
  if (curl_easy_getinfo(easy, CURLINFO_CERTINFO, &info) != CURLE_OK || info == nullptr)
    return chain;
  for (int i = 0; i < info->num_of_certs; ++i) {
    Certificate& certificate = chain.emplace_back();
    for (const curl_slist* line = info->certinfo[i]; line != nullptr; line = line->next) {
      takeLine(line->data, certificate);
    }
  }
  return chain;
}

/// Whether what failed, if anything did, is TLS: the transfer library gives no time of a connection
/// whose TLS failed.
bool isBeyondConnecting(const Connected& connected) {
  switch (connected.code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_INTERFACE_FAILED:
    case CURLE_PROXY:
      return false;
    case CURLE_OPERATION_TIMEDOUT:
      return !connected.address.empty();
    default:
      return true;
  }
}

std::size_t takeBody(char* bytes, std::size_t, std::size_t count, void* user) {
  std::string& body = *static_cast<std::string*>(user);
  if (count > kMostBodyBytes - body.size()) return 0;
  body.append(bytes, count);
  return count;
}

}  // namespace

Way wayTo(const Url& url) {
  Handle handle;
  std::string first;
  setUp(handle.easy, url.textWithoutUser(), {}, handle.errorText);
  curl_easy_setopt(handle.easy, CURLOPT_OPENSOCKETFUNCTION, refuseSocket);
  curl_easy_setopt(handle.easy, CURLOPT_OPENSOCKETDATA, &first);
  // A connection that leads elsewhere leads to a proxy.
  const List placeholder("::192.0.2.1:9");
  curl_easy_setopt(handle.easy, CURLOPT_CONNECT_TO, placeholder.first);
  const CURLcode code = curl_easy_perform(handle.easy);
  if (!first.empty()) return {first != kPlaceholder, first, {}};
  // The placeholder is an address, so only a proxy's name can be missing: libcurl 7.88 reports that
  // of a SOCKS proxy as the server's, 8.14 now and then any proxy's.
  if (code != CURLE_COULDNT_RESOLVE_PROXY && code != CURLE_COULDNT_RESOLVE_HOST) return {};
  return {true, {}, errorOf(code, handle.errorText)};
}

Connected connectTo(const Url& url, const std::string& caBundle, Checks checks) {
  Handle handle;
  setUp(handle.easy, url.textWithoutUser(), caBundle, handle.errorText);
  curl_easy_setopt(handle.easy, CURLOPT_CONNECT_ONLY, 1L);
  curl_easy_setopt(handle.easy, CURLOPT_TIMEOUT_MS, kConnectMilliseconds);
  curl_easy_setopt(handle.easy, CURLOPT_SSL_VERIFYPEER, checks.chain ? 1L : 0L);
  curl_easy_setopt(handle.easy, CURLOPT_SSL_VERIFYHOST, checks.name ? 2L : 0L);
  curl_easy_setopt(handle.easy, CURLOPT_CERTINFO, 1L);
  Connected connected;
  connected.code = curl_easy_perform(handle.easy);
  connected.error = errorOf(connected.code, handle.errorText);
  curl_easy_getinfo(handle.easy, CURLINFO_HTTP_CONNECTCODE, &connected.proxyStatus);
  connected.address = peerOf(handle.easy);
  connected.isMade =
      url.scheme() == "https" ? isBeyondConnecting(connected) : connected.code == CURLE_OK;
  connected.chain = chainOf(handle.easy);
  return connected;
}

Prober::Prober(const std::string& caBundle) : _caBundle(caBundle), _easy(curl_easy_init()) {}

Prober::~Prober() { curl_easy_cleanup(_easy); }

Hop Prober::get(const std::string& url, const std::string& userAgent) {
  char errorText[CURL_ERROR_SIZE] = "";
  std::string body;
  const List unwanted("Accept:");
  curl_easy_reset(_easy);
  setUp(_easy, url, _caBundle, errorText);
  curl_easy_setopt(_easy, CURLOPT_USERAGENT, userAgent.c_str());
  curl_easy_setopt(_easy, CURLOPT_HTTPHEADER, unwanted.first);
  curl_easy_setopt(_easy, CURLOPT_TIMEOUT_MS,
                   static_cast<long>(HttpRequest::kUsualTimeout.count()));
  curl_easy_setopt(_easy, CURLOPT_WRITEFUNCTION, takeBody);
  curl_easy_setopt(_easy, CURLOPT_WRITEDATA, &body);
  const CURLcode code = curl_easy_perform(_easy);

  Hop hop;
  long made = 0;
  curl_easy_getinfo(_easy, CURLINFO_NUM_CONNECTS, &made);
  HttpResponse response;
  readResponse(_easy, response);
  if (response.status >= 200) hop.result.response = std::move(response);
  if (code == CURLE_OK) hop.result.data = std::move(body);
  if (code != CURLE_OK) hop.result.error = HttpError{code, errorOf(code, errorText), false};
  hop.isOverKeptConnection = code == CURLE_OK && made == 0;
  hop.seconds = secondsOf(_easy, CURLINFO_TOTAL_TIME_T);
  return hop;
}

}  // namespace orbiq::doctor
