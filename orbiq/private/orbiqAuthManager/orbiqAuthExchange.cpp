// The exchange with the authorization server.
#include <new>
#include <optional>
#include <stdexcept>
#include <string>

#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/private/orbiqAuthManager/AuthAnswer.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/base/Ask.h"
#include "orbiq/services/platform/base/Random.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/time/HttpDate.h"

using orbiq::ask;

namespace {

/// What one exchange came to.
struct Grant {
  std::shared_ptr<orbiqSession> session;
  std::shared_ptr<orbiqAccess> access;
  bool isDefault;
};

Grant fallbackFor(const orbiq::String& serial) {
  return {
      orbiqSession::orbiqSessionWithSerial_withCmsVI(serial, std::to_string(orbiq::randomUint32())),
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(serial, orbiq::AccessModeFull,
                                                                    ""),
      true};
}

struct Answer {
  /// No data for whatever kept a complete answer from coming.
  orbiq::HttpResult http;
  /// Why there is no grant, if there is none.
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
  const std::string* const text = response.header("Date");
  const std::optional<orbiq::Date> date = text ? orbiq::parseHttpDate(*text) : std::nullopt;
  return date ? date->secondsSince(orbiq::Platform::now()) : 0;
}

/// No value if one of the three fields is missing.
std::optional<Grant> readGrant(const orbiq::AuthFields& fields, const orbiq::String& serial,
                               const std::shared_ptr<orbiqAccess>& cached) {
  const auto access = fields.find("access");
  const auto host = fields.find("host");
  const auto cmsVI = fields.find("cmsVI");
  if (access == fields.end() || host == fields.end() || cmsVI == fields.end()) return std::nullopt;
  orbiqLogger::log_withMode(
      [&] {
        return "Access for serial " + serial.description() + " is " + access->second + " on host " +
               host->second;
      },
      orbiq::LoggingModeInfo);
  auto chosen = orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
      serial, orbiq::accessModeFromString(access->second), host->second);
  // An access of the same mode stays, with its host and first-hit mark: a restricted account gets
  // no second hit by asking again.
  if (cached && cached->accessMode() == chosen->accessMode()) chosen = cached;
  return Grant{orbiqSession::orbiqSessionWithSerial_withCmsVI(serial, cmsVI->second), chosen,
               false};
}

}  // namespace

orbiq::AccessMode orbiqAuthManager::accessModeFromString(const orbiq::String& text) {
  return orbiq::accessModeFromString(text);
}

void orbiqAuthManager::exchange(const TaggerID& tagger) try {
  const orbiq::String serial = ask(tagger, &orbiqTaggerID::serial);
  Grant grant = fallbackFor(serial);
  const Answer answer = fetch(serial);
  // The fallback is for what a server or a network does. This machine tries again later.
  if (answer.http.error && answer.http.error->isExhaustion) throw std::bad_alloc();
  if (answer.http.data) {  // whatever its status: the fields alone decide
    if (answer.http.response) {
      deltaBetweenServerAndDevice.store(clockOffset(*answer.http.response),
                                        std::memory_order_relaxed);
    }
    const auto cached = ask(stored(tagger), &orbiqAuth::currentAccess);
    const auto read = readGrant(orbiq::parseAuthAnswer(*answer.http.data), serial, cached);
    if (read) grant = *read;
  }
  if (grant.isDefault) {
    grant.access->setFallbackCause(answer.problem);
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
        return "Serial " + grant.access->serial().description() + " on host " +
               grant.access->host().description();
      },
      orbiq::LoggingModeInfo);
  store(orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(grant.session, grant.access,
                                                                grant.isDefault),
        tagger);
} catch (const std::invalid_argument& error) {
  orbiqLogger::log_withMode(
      [&] { return std::string("No authorization can be asked for: ") + error.what(); },
      orbiq::LoggingModeError);
}
