#include <curl/curl.h>
#include <strings.h>
#include <sys/auxv.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <utility>

#include "orbiq/services/platform/files/Descriptor.h"
#include "orbiq/services/platform/http/CurlFailure.h"
#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/http/KeptConnection.h"
#include "orbiq/services/platform/http/LibcurlProcess.h"
#include "orbiq/services/platform/http/Redirect.h"
#include "orbiq/services/platform/http/TransferStay.h"
#include "orbiq/services/platform/text/Utf8.h"

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

/// One request and what has arrived of its answer. libcurl's callbacks fill it in.
struct Hop {
  CURL* easy = nullptr;
  const KeptConnection* kept = nullptr;
  bool isTls = false;

  bool hasHadSocket = false;
  int sends = 0;
  bool isOver = false;
  bool headersComplete = false;
  std::size_t headerBytes = 0;
  std::string body;
  /// What went wrong, where libcurl cannot know.
  const char* problem = nullptr;
  /// What this machine had too little of.
  const char* shortage = nullptr;

  std::optional<HttpResponse> response;
  Redirect redirect;
};

curl_socket_t openSocket(void* user, curlsocktype, curl_sockaddr* address) {
  const int number =
      aboveStandard(socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol));
  Hop& hop = *static_cast<Hop*>(user);
  if (number < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
    hop.shortage = kNoDescriptor;
  }
  hop.hasHadSocket |= number >= 0;
  return number;
}

/// Called before a request is sent, and again before libcurl on its own sends it a second time, as
/// it does only where a connection that it had kept ended before a line came.
int onSend(void* user, char*, char*, int, int) {
  Hop& hop = *static_cast<Hop*>(user);
  if (hop.sends++ == 0) {
    curl_easy_setopt(hop.easy, CURLOPT_FRESH_CONNECT, 1L);  // counts for the second time
    return CURL_PREREQFUNC_OK;
  }
  if (hop.sends == 2 && hop.kept->hasBroughtNothing(hop.isTls)) return CURL_PREREQFUNC_OK;
  hop.problem = "the connection ended within the answer's first line";
  return CURL_PREREQFUNC_ABORT;
}

std::size_t onHeader(char* line, std::size_t, std::size_t count, void* user) {
  Hop& hop = *static_cast<Hop*>(user);
  hop.headerBytes += count;
  if (hop.headerBytes > kMostHeaderBytes) {
    hop.problem = "the headers are too large";
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
    hop.problem = "the body is too large";
    return 0;
  }
  try {
    hop.body.append(bytes, count);
  } catch (const std::bad_alloc&) {
    hop.shortage = "out of memory";
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

void noteResponse(const std::string& url, bool mayLeadOn, Hop& hop) {
  readResponse(hop.easy, hop.response.emplace());
  hop.redirect = redirectOf(url, *hop.response);
  if (!mayLeadOn && !hop.redirect.target.empty()) hop.redirect = {{}, "too many redirects"};
}

/// A header without a value takes libcurl's own one away. Null if that needs memory.
curl_slist* unwantedHeaders() {
  curl_slist* const first = curl_slist_append(nullptr, "Accept:");
  if (first == nullptr || curl_slist_append(first, "Proxy-Connection:") != nullptr) return first;
  curl_slist_free_all(first);
  return nullptr;
}

class CurlHttpClient final : public HttpClient {
 public:
  explicit CurlHttpClient(std::string caBundle) : _caBundle(std::move(caBundle)) {}
  ~CurlHttpClient() override;
  CurlHttpClient(const CurlHttpClient&) = delete;
  CurlHttpClient& operator=(const CurlHttpClient&) = delete;

  HttpResult send(const HttpRequest& request) override;

 private:
  struct Order {
    std::string url;
    std::string userAgent;
    SteadyTime deadline;
    bool mayLeadOn;
  };

  static Milliseconds timeLeft(const Order& order) {
    return std::chrono::ceil<Milliseconds>(order.deadline - std::chrono::steady_clock::now());
  }
  bool make();
  HttpResult follow(const HttpRequest& request, TransferStay& stay);
  CURLcode runHop(const Order& order, Hop& hop, TransferStay& stay);
  CURLcode prepare(const Order& order, Hop& hop, bool overAnotherConnection);
  void setConstantOptions();
  CURLcode drive(const Order& order, Hop& hop, TransferStay& stay);
  void watchConnection(bool isKept);
  HttpResult resultOf(Hop& hop, CURLcode code) const;

  template <class Value>
  void set(CURLoption option, Value value) {
    if (const CURLcode code = curl_easy_setopt(_easy, option, value)) _refusal = code;
  }

  const std::string _caBundle;
  // A multi handle, because its waiting can be ended from another thread.
  CURLM* _multi = nullptr;
  CURL* _easy = nullptr;
  curl_slist* _headers = nullptr;
  KeptConnection _kept;
  CURLcode _refusal = CURLE_OK;
  char _errorText[CURL_ERROR_SIZE] = "";
};

CurlHttpClient::~CurlHttpClient() {
  const TransferStay stay(nullptr);
  if (!stay.entered()) return;
  curl_easy_cleanup(_easy);
  curl_multi_cleanup(_multi);
  curl_slist_free_all(_headers);
}

/// What cannot be made now is made at the next send.
bool CurlHttpClient::make() {
  if (!prepareHttpForProcess()) return false;
  if (_multi == nullptr) {
    const StandardNumbersHeld held;  // libcurl opens what wakes it
    _multi = curl_multi_init();
  }
  if (_easy == nullptr) _easy = curl_easy_init();
  if (_headers == nullptr) _headers = unwantedHeaders();
  return _easy != nullptr && _headers != nullptr &&
         curl_multi_setopt(_multi, CURLMOPT_MAXCONNECTS, 1L) == CURLM_OK;
}

HttpResult CurlHttpClient::send(const HttpRequest& request) try {
  {
    const TransferStay stay(nullptr);
    if (stay.entered() && !make()) return failure(CURLE_FAILED_INIT, "libcurl cannot be set up");
  }
  TransferStay stay(_multi);
  if (!stay.entered()) {
    return failure(CURLE_ABORTED_BY_CALLBACK, "nothing can be sent by an ending or forked process");
  }
  // libcurl would guess what is missing, and take "ABC" for a host.
  if (!request.url.isHttp()) {
    return failure(CURLE_UNSUPPORTED_PROTOCOL, "the URL is neither http nor https");
  }
  if (request.url.host().empty()) return failure(CURLE_URL_MALFORMAT, "the URL names no host");
  return follow(request, stay);
} catch (const std::bad_alloc&) {
  return failure(CURLE_OUT_OF_MEMORY, "out of memory");
}

HttpResult CurlHttpClient::follow(const HttpRequest& request, TransferStay& stay) {
  const auto start = std::chrono::steady_clock::now();
  Order order{request.url.textWithoutUser(),
              withoutControlCharacters(request.userAgent.toStdString()),
              start + std::clamp(request.timeout, Milliseconds{0}, kLongestTimeout), true};
  for (int followed = 0;; ++followed) {
    order.mayLeadOn = followed < kMostRedirects;
    Hop hop;
    const CURLcode code = runHop(order, hop, stay);
    if (hop.redirect.target.empty()) {
      HttpResult result = resultOf(hop, code);
      if (followed > 0 && code != CURLE_OK) addLastHop(order.url, *result.error);
      return result;
    }
    order.url = std::move(hop.redirect.target);
  }
}

CURLcode CurlHttpClient::runHop(const Order& order, Hop& hop, TransferStay& stay) try {
  libcurlRanOutOfMemory() = false;
  const bool isQuiet = _kept.isQuiet();
  if (!isQuiet) _kept.forget();
  hop.easy = _easy;
  hop.kept = &_kept;
  hop.isTls = strncasecmp(order.url.c_str(), "https:", 6) == 0;
  if (const CURLcode refusal = prepare(order, hop, !isQuiet)) return refusal;
  if (curl_multi_add_handle(_multi, _easy) != CURLM_OK) return CURLE_FAILED_INIT;
  const Added added{_multi, _easy};
  const CURLcode code = drive(order, hop, stay);
  watchConnection(hop.isOver && code == CURLE_OK);
  return code;
} catch (const std::bad_alloc&) {
  _kept.forget();
  hop.shortage = "out of memory";
  // Where a redirect leads is not known; a status alone tells all else.
  if (hop.response && isRedirect(hop.response->status)) hop.response.reset();
  return CURLE_OUT_OF_MEMORY;
}

CURLcode CurlHttpClient::prepare(const Order& order, Hop& hop, bool overAnotherConnection) {
  // Or libcurl would count its second sends over the handle's whole life, and refuse the sixth. The
  // connection and the TLS sessions stay.
  curl_easy_reset(_easy);
  _errorText[0] = '\0';
  _refusal = CURLE_OK;
  setConstantOptions();
  set(CURLOPT_URL, order.url.c_str());
  set(CURLOPT_USERAGENT, order.userAgent.c_str());  // an empty one is not sent
  // For look-up, connection and TLS; each address gets its part of it. 0 would mean 300 s.
  set(CURLOPT_CONNECTTIMEOUT_MS,
      static_cast<long>(std::max(timeLeft(order), Milliseconds{1}).count()));
  set(CURLOPT_FRESH_CONNECT, overAnotherConnection ? 1L : 0L);
  set(CURLOPT_OPENSOCKETDATA, &hop);
  set(CURLOPT_PREREQDATA, &hop);
  set(CURLOPT_HEADERDATA, &hop);
  set(CURLOPT_WRITEDATA, &hop);
  return _refusal;
}

void CurlHttpClient::setConstantOptions() {
  set(CURLOPT_NOSIGNAL, 1L);
  // Or a look-up that hangs would be waited for beyond the timeout.
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_ERRORBUFFER, _errorText);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  set(CURLOPT_PATH_AS_IS, 1L);
  set(CURLOPT_HTTPHEADER, _headers);
  set(CURLOPT_PROXYHEADER, _headers);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // Redirects are not followed by libcurl, but decided hop by hop: it would turn one that it
  // refuses into an error.
  set(CURLOPT_OPENSOCKETFUNCTION, openSocket);
  set(CURLOPT_PREREQFUNCTION, onSend);
  set(CURLOPT_HEADERFUNCTION, onHeader);
  set(CURLOPT_WRITEFUNCTION, onBody);
  set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});  // or later
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  // A set-user-id program's environment is its caller's.
  if (getauxval(AT_SECURE) != 0) set(CURLOPT_PROXY, "");
  if (!_caBundle.empty()) {
    set(CURLOPT_CAINFO, _caBundle.c_str());
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    set(CURLOPT_CA_CACHE_TIMEOUT, 0L);  // the next connection sees a new bundle
  }
}

CURLcode CurlHttpClient::drive(const Order& order, Hop& hop, TransferStay& stay) {
  for (int running = 1;;) {
    if (curl_multi_perform(_multi, &running) != CURLM_OK) return CURLE_FAILED_INIT;
    if (hop.headersComplete && !hop.response) noteResponse(order.url, order.mayLeadOn, hop);
    if (running == 0) break;
    // The body of a redirect is not waited for.
    if (!hop.redirect.target.empty()) return CURLE_OK;
    // libcurl looks at its own time-out before it reads. What came while the process was frozen
    // would be thrown away.
    const Milliseconds left = timeLeft(order);
    if (hop.sends > 0 && left <= left.zero()) {
      hop.problem =
          hop.headersComplete ? "the body did not come in time" : "no answer came in time";
      return CURLE_OPERATION_TIMEDOUT;
    }
    const auto longest = std::clamp<Milliseconds::rep>(left.count(), 1, kPollMilliseconds);
    if (curl_multi_poll(_multi, nullptr, 0, static_cast<int>(longest), nullptr) != CURLM_OK) {
      return CURLE_FAILED_INIT;
    }
    if (stay.mustEnd()) return CURLE_ABORTED_BY_CALLBACK;
  }
  hop.isOver = true;
  int remaining = 0;
  const CURLMsg* message = curl_multi_info_read(_multi, &remaining);
  return message != nullptr ? message->data.result : CURLE_FAILED_INIT;
}

/// Watches the connection of the transfer that has just ended.
void CurlHttpClient::watchConnection(bool isKept) {
  curl_socket_t socket = CURL_SOCKET_BAD;
  long made = 0;
  if (isKept) curl_easy_getinfo(_easy, CURLINFO_ACTIVESOCKET, &socket);
  curl_easy_getinfo(_easy, CURLINFO_NUM_CONNECTS, &made);
  if (socket == CURL_SOCKET_BAD || made > 0) _kept.watch(socket);
}

HttpResult CurlHttpClient::resultOf(Hop& hop, CURLcode code) const {
  HttpResult result;
  const char* const shortage =
      hop.shortage != nullptr ? hop.shortage : shortageBehind(code, _errorText);
  result.response = std::move(hop.response);
  if (hop.problem != nullptr && shortage == nullptr) {
    result.error = errorOf(code, hop.problem);
  } else if (code != CURLE_OK && shortage != nullptr) {
    result.error = errorOf(CURLE_OUT_OF_MEMORY, shortage);
  } else if (code == CURLE_OUT_OF_MEMORY && hop.sends > 0) {
    // So libcurl 7 calls it.
    result.error = errorOf(CURLE_FILESIZE_EXCEEDED, "a header line of more than 100 KiB");
  } else if (code != CURLE_OK) {
    result.error = errorOf(code, _errorText[0] != '\0' ? _errorText : curl_easy_strerror(code));
    // Without a socket, its number is an earlier request's.
    if (code == CURLE_COULDNT_CONNECT && hop.hasHadSocket) addSystemError(_easy, *result.error);
  } else if (!result.response) {
    // A switch to another protocol ends the transfer well.
    result.error = errorOf(CURLE_WEIRD_SERVER_REPLY, "the headers of an answer did not come whole");
  } else {
    result.data = std::move(hop.body);
    if (hop.redirect.refusal != nullptr) {
      result.error = errorOf(CURLE_TOO_MANY_REDIRECTS, hop.redirect.refusal);
    }
  }
  return result;
}

}  // namespace

std::unique_ptr<HttpClient> makeHttpClient(const std::string& caBundle) {
  prepareHttpForProcess();  // or a send tries it again
  return std::make_unique<CurlHttpClient>(caBundle);
}

}  // namespace orbiq
