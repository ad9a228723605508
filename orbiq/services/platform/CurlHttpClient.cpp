#include <curl/curl.h>

#include <algorithm>
#include <climits>
#include <mutex>
#include <new>
#include <utility>

#include "orbiq/services/platform/HttpClient.h"
#include "orbiq/services/platform/ProcessExit.h"

namespace orbiq {
namespace {

using Milliseconds = std::chrono::milliseconds;
using SteadyTime = std::chrono::steady_clock::time_point;

constexpr int kMostRedirects = 16;
constexpr std::size_t kMostBodyBytes = std::size_t{1} << 20;
constexpr std::size_t kMostHeaderBytes = std::size_t{256} << 10;
constexpr Milliseconds kLongestTimeout{INT_MAX};  // libcurl takes no more
/// Only an upper bound: libcurl shortens it to its own next timer.
constexpr int kPollMilliseconds = 60'000;

struct CurlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
  void operator()(char* text) const { curl_free(text); }
};

bool isHttp(std::string_view scheme) { return scheme == "http" || scheme == "https"; }

/// False for a reference such as "http:/x" or "///x", whose host libcurl would guess.
bool leavesNothingToGuess(std::string_view reference) {
  const std::size_t delimiter = reference.find_first_of(":/?#");
  if (delimiter == reference.npos || reference[delimiter] != ':') {
    return !reference.starts_with("///");
  }
  const std::string_view rest = reference.substr(delimiter + 1);
  return rest.starts_with("//") && !rest.starts_with("///");
}

std::string part(CURLU* url, CURLUPart which) {
  char* text = nullptr;
  if (curl_url_get(url, which, &text, 0) != CURLUE_OK) return {};
  const std::unique_ptr<char, CurlFree> owner(text);
  return text;
}

/// Where a response from `url` leads to; empty if it is not to be followed.
std::string redirectTarget(const std::string& url, const HttpResponse& response) {
  const int status = response.status;
  if (status != 301 && status != 302 && status != 303 && status != 307 && status != 308) return {};
  const std::string* location = response.header("Location");
  if (location == nullptr || location->empty() || !leavesNothingToGuess(*location)) return {};

  const std::unique_ptr<CURLU, CurlFree> parts(curl_url());
  if (!parts || curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return {};
  const std::string before = part(parts.get(), CURLUPART_SCHEME);
  // Servers send blanks and UTF-8 unescaped here.
  constexpr unsigned kLenient = CURLU_URLENCODE | CURLU_ALLOW_SPACE;
  if (curl_url_set(parts.get(), CURLUPART_URL, location->c_str(), kLenient) != CURLUE_OK) return {};
  const std::string after = part(parts.get(), CURLUPART_SCHEME);
  if (!isHttp(after) || (before == "https" && after == "http")) return {};
  return part(parts.get(), CURLUPART_URL);
}

/// What has arrived of one request's answer. libcurl's callbacks fill it in.
struct Hop {
  CURL* easy = nullptr;
  bool headersComplete = false;
  std::size_t headerBytes = 0;
  std::string body;
  const char* exceeded = nullptr;

  std::optional<HttpResponse> response;
  /// Where to go next; empty if the response is the last.
  std::string next;
};

std::size_t onHeader(char* line, std::size_t, std::size_t count, void* user) {
  Hop& hop = *static_cast<Hop*>(user);
  hop.headerBytes += count;
  if (hop.headerBytes > kMostHeaderBytes) {
    hop.exceeded = "the headers are too large";
    return 0;
  }
  if (line[0] != '\r' && line[0] != '\n') return count;
  long status = 0;
  curl_easy_getinfo(hop.easy, CURLINFO_RESPONSE_CODE, &status);
  if (status >= 200) hop.headersComplete = true;  // below that, the response is still to come
  return count;
}

std::size_t onBody(char* bytes, std::size_t, std::size_t count, void* user) {
  Hop& hop = *static_cast<Hop*>(user);
  if (count > kMostBodyBytes - hop.body.size()) {
    hop.exceeded = "the body is too large";
    return 0;
  }
  try {
    hop.body.append(bytes, count);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return count;
}

/// Takes the easy handle out of the multi handle again, come what may.
struct Added {
  CURLM* multi;
  CURL* easy;
  ~Added() { curl_multi_remove_handle(multi, easy); }
};

/// The headers that have arrived, without those of a proxy, of informational answers, and of a
/// body's end.
HttpResponse responseOf(CURL* easy) {
  HttpResponse response;
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  response.status = static_cast<int>(status);
  curl_header* header = nullptr;
  while ((header = curl_easy_nextheader(easy, CURLH_HEADER, -1, header)) != nullptr) {
    // libcurl leaves the line's end in a value that is empty otherwise.
    std::string_view value = header->value;
    while (value.ends_with('\r') || value.ends_with('\n')) value.remove_suffix(1);
    response.headers[header->name] = value;
  }
  return response;
}

std::string withoutControlCharacters(std::string text) {
  std::erase_if(text, [](char character) {
    return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
  });
  return text;
}

HttpResult failure(int code, const char* text) {
  return HttpResult{std::nullopt, std::nullopt, HttpError{code, text}};
}

class CurlHttpClient final : public HttpClient {
 public:
  explicit CurlHttpClient(const std::string& caBundle);
  ~CurlHttpClient() override;
  CurlHttpClient(const CurlHttpClient&) = delete;
  CurlHttpClient& operator=(const CurlHttpClient&) = delete;

  HttpResult send(const HttpRequest& request) override;

 private:
  template <class Value>
  void set(CURLoption option, Value value) {
    if (curl_easy_setopt(_easy, option, value) != CURLE_OK) _ready = false;
  }
  void setUp(const std::string& caBundle);
  HttpResult follow(const HttpRequest& request, TransferStay& stay);
  CURLcode runHop(const std::string& url, bool mayLeadOn, Hop& hop, TransferStay& stay);
  CURLcode drive(const std::string& url, bool mayLeadOn, Hop& hop, TransferStay& stay);
  HttpResult resultOf(Hop& hop, CURLcode code) const;

  // A multi handle, because its waiting can be ended from another thread.
  CURLM* const _multi;
  CURL* const _easy;
  curl_slist* _headers = nullptr;
  bool _ready = false;
  char _errorText[CURL_ERROR_SIZE] = "";
};

CurlHttpClient::CurlHttpClient(const std::string& caBundle)
    : _multi(curl_multi_init()), _easy(curl_easy_init()) {
  // A header without a value takes libcurl's own one away.
  _headers = curl_slist_append(_headers, "Accept:");
  curl_slist* const both = curl_slist_append(_headers, "Proxy-Connection:");
  _ready = _multi != nullptr && _easy != nullptr && both != nullptr;
  if (_ready) setUp(caBundle);
}

CurlHttpClient::~CurlHttpClient() {
  const TransferStay stay(nullptr);
  if (!stay.entered()) return;
  curl_easy_cleanup(_easy);
  curl_multi_cleanup(_multi);
  curl_slist_free_all(_headers);
}

void CurlHttpClient::setUp(const std::string& caBundle) {
  if (curl_multi_setopt(_multi, CURLMOPT_MAXCONNECTS, 1L) != CURLM_OK) _ready = false;
  set(CURLOPT_NOSIGNAL, 1L);
  // Or a look-up that hangs would be waited for beyond the timeout.
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_ERRORBUFFER, _errorText);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  set(CURLOPT_HTTP09_ALLOWED, 0L);
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_HTTPHEADER, _headers);
  set(CURLOPT_PROXYHEADER, _headers);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // Redirects are decided here, hop by hop: libcurl would turn one that it refuses into an error.
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_HEADERFUNCTION, onHeader);
  set(CURLOPT_WRITEFUNCTION, onBody);
  set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});  // or later
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  if (!caBundle.empty()) {
    set(CURLOPT_CAINFO, caBundle.c_str());
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  }
}

HttpResult CurlHttpClient::send(const HttpRequest& request) {
  TransferStay stay(_multi);
  if (!stay.entered()) {
    return failure(CURLE_ABORTED_BY_CALLBACK, "nothing can be sent by an ending or forked process");
  }
  if (!_ready) return failure(CURLE_FAILED_INIT, curl_easy_strerror(CURLE_FAILED_INIT));
  // libcurl would guess what is missing, and take "ABC" for a host.
  if (!isHttp(request.url.scheme())) {
    return failure(CURLE_UNSUPPORTED_PROTOCOL, "the URL is neither http nor https");
  }
  if (request.url.host().empty()) return failure(CURLE_URL_MALFORMAT, "the URL names no host");
  return follow(request, stay);
}

HttpResult CurlHttpClient::follow(const HttpRequest& request, TransferStay& stay) {
  const std::string userAgent = withoutControlCharacters(request.userAgent.toStdString());
  curl_easy_setopt(_easy, CURLOPT_USERAGENT, userAgent.c_str());  // an empty one is not sent
  const auto start = std::chrono::steady_clock::now();
  const SteadyTime deadline = start + std::clamp(request.timeout, Milliseconds{0}, kLongestTimeout);

  std::string url = request.url.text();
  for (int followed = 0;; ++followed) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - std::chrono::steady_clock::now());
    // 0 would mean no timeout at all.
    const auto timeout = std::max<Milliseconds::rep>(left.count(), 1);
    curl_easy_setopt(_easy, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout));
    Hop hop;
    const CURLcode code = runHop(url, followed < kMostRedirects, hop, stay);
    if (hop.next.empty()) return resultOf(hop, code);
    url = std::move(hop.next);
  }
}

CURLcode CurlHttpClient::runHop(const std::string& url, bool mayLeadOn, Hop& hop,
                                TransferStay& stay) {
  hop.easy = _easy;
  _errorText[0] = '\0';
  if (const CURLcode refused = curl_easy_setopt(_easy, CURLOPT_URL, url.c_str())) return refused;
  curl_easy_setopt(_easy, CURLOPT_HEADERDATA, &hop);
  curl_easy_setopt(_easy, CURLOPT_WRITEDATA, &hop);
  if (curl_multi_add_handle(_multi, _easy) != CURLM_OK) return CURLE_FAILED_INIT;
  const Added added{_multi, _easy};
  return drive(url, mayLeadOn, hop, stay);
}

CURLcode CurlHttpClient::drive(const std::string& url, bool mayLeadOn, Hop& hop,
                               TransferStay& stay) {
  for (int running = 1;;) {
    if (curl_multi_perform(_multi, &running) != CURLM_OK) return CURLE_FAILED_INIT;
    if (hop.headersComplete && !hop.response) {
      hop.response = responseOf(_easy);
      if (mayLeadOn) hop.next = redirectTarget(url, *hop.response);
    }
    // The body of a redirect is not waited for.
    if (!hop.next.empty()) return CURLE_OK;
    if (running == 0) break;
    if (curl_multi_poll(_multi, nullptr, 0, kPollMilliseconds, nullptr) != CURLM_OK) {
      return CURLE_FAILED_INIT;
    }
    stay.parkIfExiting();
  }
  int remaining = 0;
  const CURLMsg* message = curl_multi_info_read(_multi, &remaining);
  return message != nullptr ? message->data.result : CURLE_FAILED_INIT;
}

HttpResult CurlHttpClient::resultOf(Hop& hop, CURLcode code) const {
  HttpResult result;
  result.response = std::move(hop.response);
  if (hop.exceeded != nullptr) {
    result.error = HttpError{CURLE_FILESIZE_EXCEEDED, hop.exceeded};
  } else if (code != CURLE_OK) {
    result.error = HttpError{code, _errorText[0] != '\0' ? _errorText : curl_easy_strerror(code)};
  } else if (!result.response) {
    // A switch to another protocol ends the transfer well.
    result.error = HttpError{CURLE_WEIRD_SERVER_REPLY, "only an informational answer came"};
  } else {
    result.data = std::move(hop.body);
  }
  return result;
}

}  // namespace

void prepareHttpForProcess() {
  static std::once_flag prepared;
  std::call_once(prepared, [] {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    installExitHandler();
  });
}

std::unique_ptr<HttpClient> makeHttpClient(const std::string& caBundle) {
  prepareHttpForProcess();
  return std::make_unique<CurlHttpClient>(caBundle);
}

}  // namespace orbiq
