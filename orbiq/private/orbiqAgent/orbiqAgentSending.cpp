// The agent's sending loop.
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "orbiq/private/orbiqAgent/AgentState.h"
#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/private/orbiqAuthManager/Shortage.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/base/Ask.h"
#include "orbiq/services/platform/host/Platform.h"

using orbiq::ask;
using orbiq::HitFate;
using orbiq::HitLedger;
namespace SendingRules = orbiq::SendingRules;

namespace {

constexpr char kErrorDomain[] = "com.bramwell.orbiq";
constexpr char kHttpErrorDomain[] = "http";

constexpr std::int64_t kNotReachable = 1;
constexpr std::int64_t kNotAllowed = 2;
constexpr std::int64_t kNoResponse = 3;

void logAbout(const orbiqRequest& request, const char* what, orbiq::LoggingMode mode) {
  orbiqLogger::log_withMode([&] { return "Request " + request.description() + what; }, mode);
}

bool isDenied(const std::shared_ptr<orbiqAccess>& access) {
  return ask(access, &orbiqAccess::accessMode) == orbiq::AccessModeDenied;
}

void logRefusal(const orbiqRequest& request, const std::shared_ptr<orbiqAccess>& access) {
  if (isDenied(access)) {
    logAbout(request, " can't be sent because of access denied for its serial",
             orbiq::LoggingModeError);
    return;
  }
  orbiqLogger::log_withMode(
      [&] {
        return "orbiqAudienceTagger - Can't send hit anymore with this serial : " +
               request.serial().description();
      },
      orbiq::LoggingModeError);
}

void recordFailure(orbiqRequest& request) {
  request.setNumberOfFails(request.numberOfFails() + 1);
  request.setLastFail(orbiq::Platform::now());
  request.setStatus(orbiq::RequestStatusFailed);
}

bool isValid(const orbiqRequest& request) {
  return SendingRules::isValid(request.creationDate(), orbiq::Platform::now(),
                               orbiqAuthManager::manager().timeIntervalBetweenServerAndDevice());
}

/// Why there is no response. A fallback, whose URL cannot be asked, has its own cause.
std::string causeOf(const orbiqRequest& request, const orbiq::Url& url,
                    const orbiq::HttpResult& result) {
  const auto access = ask(request.auth(), &orbiqAuth::currentAccess);
  if (!url.isHttp() && access && access->baseURL().isEmpty()) {
    const orbiq::String cause = access->fallbackCause();
    return cause.isNull() ? "an earlier run got no authorization for it" : cause.toStdString();
  }
  return result.error ? result.error->text : "no response";
}

/// What is known already stays known where there is no memory for its text.
template <class MakeText>
orbiq::String textOf(const MakeText& makeText) try {
  return makeText();
} catch (const std::bad_alloc&) {
  return orbiq::String::outOfMemory();
}

orbiq::String causeOfRefusal(const orbiq::String& serial,
                             const std::shared_ptr<orbiqAccess>& access) {
  const char* const cause = !access            ? ": there is no access for it"
                            : isDenied(access) ? ": the account is denied"
                                               : ": the account is restricted and has sent its hit";
  return textOf([&] { return serial.description() + cause; });
}

}  // namespace

bool orbiqAgent::State::isReachable() const {
  return ask(reachability, &orbiqReachability::isReachable);
}

void orbiqAgent::State::handleRequests() {
  for (;;) {
    const orbiq::Lock lock(requestsProtector);
    try {
      waitForHead();
      handleHead();
    } catch (const std::exception& error) {
      // Out of memory, most likely: the queue stands as it is until the next signal.
      orbiqLogger::log_withMode(
          [&] { return std::string("The sending loop failed: ") + error.what(); },
          orbiq::LoggingModeError);
      if (!requestQueue->empty()) requestsFile->changed(*requestQueue->front());
      requestsProtector.wait();
    }
  }
}

void orbiqAgent::State::waitForHead() {
  while (!headIsDue()) {
    if (isQuiet) syncAtRest();
    if (requestQueue->empty()) requestsFile->rest();
    requestsProtector.wait();
  }
}

bool orbiqAgent::State::headIsDue() {
  if (requestQueue->empty() && !waitsForNetwork) return false;
  noteNetwork(isReachable());
  if (requestQueue->empty() || waitsForNetwork) return false;
  return SendingRules::isDue(requestQueue->front()->lastFail(), orbiq::Platform::now());
}

void orbiqAgent::State::noteNetwork(bool isThere) {
  if (isThere != waitsForNetwork) return;
  waitsForNetwork = !isThere;
  if (!isThere) ledger.noteFailure("there is no network");
  orbiqLogger::log_withMode(
      isThere ? "There is a network again" : "The requests wait, as there is no network",
      orbiq::LoggingModeWarning);
}

void orbiqAgent::State::handleHead() {
  orbiqLogger::log_withMode("Request to handle !", orbiq::LoggingModeInfo);
  const std::shared_ptr<orbiqRequest> head = requestQueue->front();
  if (dynamic_cast<const orbiqClearCache*>(head.get()) != nullptr) {
    orbiqAuthManager::manager().clearCache();
    removeRequestFromQueue(head, HitFate::GivenUp);
    return;
  }
  if (!isValid(*head)) {
    removeRequestFromQueue(head, HitFate::GivenUp, textOf([&] {
                             return head->serial().description() +
                                    ": the hit was created on a later day than today";
                           }));
    return;
  }
  orbiqLogger::log_withMode([&] { return "Handling request " + head->description(); },
                            orbiq::LoggingModeInfo);
  const Attempt result = handleRequest(head);
  if (!result.fate) {
    requestsFile->changed(*head);
    if (!result.failure.isNull()) ledger.noteFailure(result.failure);
    logAbout(*head, " handling resulted in a timeout or lack of connection",
             orbiq::LoggingModeWarning);
    if (requestQueue->size() > SendingRules::kMostRequests)
      removeRequestFromQueue(head, HitFate::PushedOut);
    return;
  }
  logAbout(*head, " handling done", orbiq::LoggingModeInfo);
  removeRequestFromQueue(head, *result.fate, result.failure);
  if (head->shouldRenewSessionAfter() && head->sendingMode() == orbiq::SendingModeSerialWithStop) {
    sendStopCopyOf(head);
  }
}

// Once, whatever comes of it.
void orbiqAgent::State::sendStopCopyOf(const std::shared_ptr<orbiqRequest>& request) try {
  request->setCreationDate(orbiq::Platform::now());
  request->transformToStop();
  handleRequest(request);
} catch (const std::bad_alloc& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
}

orbiqAgent::State::Attempt orbiqAgent::State::handleRequest(
    const std::shared_ptr<orbiqRequest>& request) {
  if (!request) return {};
  const HitLedger::Sending sending(ledger);
  request->setStatus(orbiq::RequestStatusSending);
  if (!isReachable()) return {Error{kErrorDomain, kNotReachable}, std::nullopt, {}};

  const bool hasItsOwn = request->auth() != nullptr;
  if (SendingRules::takesCachedAuthorization(request->requestType(), hasItsOwn)) {
    const orbiq::String shortage = authorize(*request);
    if (!shortage.isNull()) {
      recordFailure(*request);
      return {Error{kErrorDomain, kNoResponse}, std::nullopt, shortage};
    }
  }
  const auto access = ask(request->auth(), &orbiqAuth::currentAccess);
  if (!ask(access, &orbiqAccess::canSendRequestFor, request->requestType())) {
    logRefusal(*request, access);
    return {Error{kErrorDomain, kNotAllowed}, HitFate::Refused,
            causeOfRefusal(request->serial(), access)};
  }
  if (request->shouldRenewSessionAfter()) renewSession(*request);

  const std::optional<orbiq::Url> url = request->url();
  if (!url) {
    logAbout(*request, " was not sent because of invalid parameters", orbiq::LoggingModeError);
    return {std::nullopt, HitFate::GivenUp,
            textOf([] { return "the host or the serial makes no URL"; })};
  }
  return send(*request, *url);
}

/// Null, or why this machine could not even ask: then the request waits like one without a
/// response.
orbiq::String orbiqAgent::State::authorize(orbiqRequest& request) try {
  request.setAuth(orbiqAuthManager::manager().obtainAuth(request.taggerID()));
  return {};
} catch (const orbiq::Shortage& shortage) {
  orbiqLogger::log_withMode(shortage.what(), orbiq::LoggingModeError);
  return textOf([&] { return shortage.what(); });
} catch (const std::bad_alloc& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
  return orbiq::String::outOfMemory();
}

orbiqAgent::State::Attempt orbiqAgent::State::send(orbiqRequest& request, const orbiq::Url& url) {
  const orbiq::HttpResult result =
      orbiq::Platform::send({url, orbiq::DeviceContext::userAgent(), SendingRules::kHitTimeout});
  const std::optional<HitFate> fate = SendingRules::fateAfter(
      result.response ? std::optional(result.response->status) : std::nullopt);
  if (fate == HitFate::Sent) {
    logAbout(request, " sent", orbiq::LoggingModeInfo);
    if (request.requestType() == orbiq::RequestTypeAudience) {
      const auto marked =
          orbiqAuthManager::manager().hitSuccessfullySentForTagger(request.taggerID());
      if (marked) requestsFile->changed(*marked);
    }
    return {std::nullopt, fate, {}};
  }
  if (!fate) {
    recordFailure(request);
    return {Error{kErrorDomain, kNoResponse}, std::nullopt,
            textOf([&] { return url.textWithoutUser() + ": " + causeOf(request, url, result); })};
  }
  Attempt answered{std::nullopt, fate, textOf([&] {
                     return url.textWithoutUser() + ": answered with status " +
                            std::to_string(result.response->status) +
                            (result.error ? ": " + result.error->text : "");
                   })};
  if (result.error) answered.error = Error{kHttpErrorDomain, result.error->code};
  return answered;
}

void orbiqAgent::countRefusedHit(const orbiq::String& serial,
                                 const std::shared_ptr<orbiqAccess>& access) {
  if (isForkedAway()) return;
  State::ofProcess().ledger.countHit(HitFate::Refused, causeOfRefusal(serial, access));
}

bool orbiqAgent::isTheRequestValid(const orbiqRequest& request) const { return isValid(request); }
