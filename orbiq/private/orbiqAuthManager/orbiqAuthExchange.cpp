// The exchange with the authorization server.
#include <new>
#include <optional>
#include <stdexcept>
#include <string>

#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/private/orbiqAuthManager/AuthAnswer.h"
#include "orbiq/private/orbiqAuthManager/Shortage.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/base/Ask.h"
#include "orbiq/services/platform/base/Random.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/time/HttpDate.h"

using orbiq::ask;

namespace {

std::shared_ptr<orbiqAuth> fallbackFor(const orbiq::String& serial) {
  return orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
      orbiqSession::orbiqSessionWithSerial_withCmsVI(serial, std::to_string(orbiq::randomUint32())),
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(serial, orbiq::AccessModeFull,
                                                                    ""),
      true);
}

struct Answer {
  /// No data for whatever kept a complete answer from coming.
  orbiq::HttpResult http;
  /// The cause to tell if it grants nothing.
  std::string problem;
};

Answer fetch(const orbiq::String& serial) {
  const orbiq::String problem = orbiq::HostApplication::authorizationServerProblem();
  // No fallback, then: the next attempt asks again.
  if (problem.isSameObjectAs(orbiq::String::outOfMemory())) throw std::bad_alloc();
  if (!problem.isNull()) return {{}, problem.toStdString()};
  const std::string server = orbiq::HostApplication::current().authorizationServer.toStdString();
  const std::optional<orbiq::Url> url = orbiq::Url::fromText(server + serial.toStdString());
  if (!url) return {{}, "the serial makes no URL of the authorization server"};
  Answer answer{orbiq::Platform::send({*url, orbiq::DeviceContext::userAgent()}),
                "no answer of the authorization server"};
  const orbiq::HttpResult& http = answer.http;
  if (http.data && http.response) {
    answer.problem = "the authorization server's answer with status " +
                     std::to_string(http.response->status) + " lacks access, host or cmsVI";
  }
  if (http.error) answer.problem += ": " + http.error->text;
  return answer;
}

/// The server's clock minus the device's; 0 where the header is missing or cannot be read.
double clockOffset(const orbiq::HttpResponse& response) {
  const std::optional<orbiq::Date> date = orbiq::parseHttpDate(response.date.value_or(""));
  return date ? date->secondsSince(orbiq::Platform::now()) : 0;
}

/// Null if one of the three fields is missing.
std::shared_ptr<orbiqAuth> readGrant(const orbiq::AuthFields& fields, const orbiq::String& serial,
                                     const std::shared_ptr<orbiqAccess>& cached) {
  const auto access = fields.find("access");
  const auto host = fields.find("host");
  const auto cmsVI = fields.find("cmsVI");
  if (access == fields.end() || host == fields.end() || cmsVI == fields.end()) return nullptr;
  orbiqLogger::log_withMode(
      [&] {
        return "Access for serial " + serial.description() + " is " + access->second + " on host " +
               host->second;
      },
      orbiq::LoggingModeInfo);
  auto chosen = orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
      serial, orbiqAuthManager::accessModeFromString(access->second), host->second);
  // An access of the same mode stays, with its host and first-hit mark: a restricted account gets
  // no second hit by asking again.
  if (cached && cached->accessMode() == chosen->accessMode()) chosen = cached;
  return orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
      orbiqSession::orbiqSessionWithSerial_withCmsVI(serial, cmsVI->second), chosen, false);
}

}  // namespace

orbiq::AccessMode orbiqAuthManager::accessModeFromString(const orbiq::String& text) {
  if (text.view() == "denied") return orbiq::AccessModeDenied;
  if (text.view() == "restricted") return orbiq::AccessModeRestricted;
  return orbiq::AccessModeFull;
}

void orbiqAuthManager::exchange(const TaggerID& tagger) try {
  const orbiq::String serial = ask(tagger, &orbiqTaggerID::serial);
  const auto fallback = fallbackFor(serial);
  std::shared_ptr<orbiqAuth> auth;
  const Answer answer = fetch(serial);
  // The fallback is for what a server or a network does. This machine tries again later.
  if (answer.http.error && answer.http.error->isExhaustion) {
    throw orbiq::Shortage(answer.problem);
  }
  if (answer.http.data) {  // whatever its status: the fields alone decide
    if (answer.http.response) {
      deltaBetweenServerAndDevice.store(clockOffset(*answer.http.response),
                                        std::memory_order_relaxed);
    }
    const auto cached = ask(stored(tagger), &orbiqAuth::currentAccess);
    auth = readGrant(orbiq::parseAuthAnswer(*answer.http.data), serial, cached);
  }
  if (!auth) {
    auth = fallback;
    auth->currentAccess()->setFallbackCause(answer.problem);
    if (answer.http.error) {
      orbiqLogger::log_withMode(
          [&] {
            return "No authorization for serial " + serial.description() + ": " + answer.problem;
          },
          orbiq::LoggingModeWarning);
    }
  }
  orbiqLogger::log_withMode(
      [&] {
        return "Serial " + auth->currentAccess()->serial().description() + " on host " +
               auth->currentAccess()->host().description();
      },
      orbiq::LoggingModeInfo);
  store(auth, tagger);
} catch (const std::invalid_argument& error) {
  orbiqLogger::log_withMode(
      [&] { return std::string("No authorization can be asked for: ") + error.what(); },
      orbiq::LoggingModeError);
}
