// Asks the authorization server as the library does, and looks at the answer.
#include <cmath>
#include <optional>
#include <string>

#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/http/Redirect.h"
#include "tools/doctor/Answer.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

constexpr int kMostRedirects = 16;
constexpr double kSlowSeconds = 5;

struct Journey {
  Hop last;
  std::string url;
  const char* refusal = nullptr;  ///< why the last redirect is not followed
  int redirects = 0;
  double seconds = 0;
};

Journey ask(const Context& context) {
  Prober prober(context.options.caBundle);
  Journey journey;
  journey.url = context.url->textWithoutUser();
  for (;;) {
    journey.last = prober.get(journey.url, DeviceContext::userAgent().toStdString());
    journey.seconds += journey.last.seconds;
    if (!journey.last.result.response) return journey;
    const Redirect redirect = redirectOf(journey.url, *journey.last.result.response);
    journey.refusal = redirect.refusal;
    if (redirect.target.empty()) return journey;
    if (journey.redirects == kMostRedirects) {
      journey.refusal = "too many redirects";
      return journey;
    }
    ++journey.redirects;
    journey.url = redirect.target;
  }
}

void examineRedirects(const Context& context, const Journey& journey, Finding& finding) {
  if (journey.redirects > 0) {
    const std::string text =
        std::to_string(journey.redirects) + " redirects led to " + shownUrl(journey.url) + ".";
    if (context.options.checksServer) {
      finding.warn("redirected", text,
                   "Have clients name the last server: each of them comes "
                   "this way at every start.");
    } else {
      finding.isFine(text);
    }
  }
  if (journey.refusal == nullptr) return;
  const std::optional<std::string>& location = journey.last.result.response->location;
  finding.fail("redirect-not-followed",
               std::string("A redirect is not followed: ") + journey.refusal + " (" +
                   (location ? shownUrl(*location) : "no Location") + ").",
               "Name the server where it leads to, or have it lead to https.");
}

void examineTime(const Journey& journey, Finding& finding) {
  const long milliseconds = std::lround(journey.seconds * 1000);
  if (journey.seconds < kSlowSeconds) {
    return finding.isFine("The answer took " + std::to_string(milliseconds) + " ms.");
  }
  finding.warn("slow", "The answer took " + shownDuration(journey.seconds) + ".",
               "After 60 seconds the library goes on without an authorization.");
}

}  // namespace

Finding examineExchange(Context& context) {
  Finding finding;
  if (!context.tagger) {
    finding.skip("Nothing is asked without an account (--serial).");
    context.obstacle = "no account is given.";
    return finding;
  }
  const Journey journey = ask(context);
  const HttpResult& result = journey.last.result;
  context.answeredAt = Platform::now();
  context.answer = result.response;
  const std::string error = result.error ? result.error->text : "it was not complete";
  if (!result.response) {
    finding.fail("no-answer", "The server gives no answer: " + error + ".",
                 "See what the server logs of this request.");
    return finding;
  }
  examineRedirects(context, journey, finding);
  if (!result.data) {
    finding.fail(
        "answer-cut", "The answer did not come whole: " + error + ".",
        "See that the server sends as much as its Content-Length says, and at most 1 MiB.");
    return finding;
  }
  if (journey.refusal != nullptr) return finding;
  examineTime(journey, finding);
  examineAnswer(*result.response, *result.data, finding);
  return finding;
}

Finding examineKeepAlive(Context& context) {
  Finding finding;
  Prober prober(context.options.caBundle);
  const std::string url = context.url->textWithoutUser();
  const std::string userAgent = DeviceContext::userAgent().toStdString();
  prober.get(url, userAgent);
  const Hop second = prober.get(url, userAgent);
  if (second.isOverKeptConnection) {
    finding.isFine("The server keeps the connection for a second request.");
  } else {
    finding.warn(
        "not-kept", "The server does not keep the connection: each request takes a new one.",
        "Let it keep connections for a minute or more. Of a hit server this matters most.");
  }
  return finding;
}

}  // namespace orbiq::doctor
