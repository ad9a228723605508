// Sends one hit, if told to.
#include <optional>
#include <string>

#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/private/orbiqAgent/SendingRules.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/RequestEnumerations.h"
#include "orbiq/services/platform/base/Ask.h"
#include "orbiq/services/platform/host/Platform.h"
#include "tools/doctor/Peer.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

/// Why there was no answer.
void explainSilence(const Context& context, const HttpResult& result, Finding& finding) {
  const Url& url = *context.hit;
  const Way way = wayTo(url);
  const Connected connected = connectTo(url, context.options.caBundle, {});
  examineConnectionTo(way, connected, finding);
  if (finding.level() != Level::kFailure) {
    examineTlsOf(url, connected, context.options.caBundle, finding);
  }
  finding.fail("hit-unanswered",
               "The hit got no answer within 10 seconds: " +
                   (result.error ? result.error->text : "no response") +
                   ". One of the application would wait, and everything behind it.",
               "See what the hit server logs of this request.");
}

void markSent(const Context& context, Finding& finding) {
  finding.isFine("The hit was sent to " + shownUrl(context.hit->text()) +
                 " and answered with status 200.");
  auto& manager = orbiqAuthManager::manager();
  manager.hitSuccessfullySentForTagger(context.tagger);
  const auto access =
      ask(manager.authFromCacheForTagger(context.tagger), &orbiqAuth::currentAccess);
  if (!ask(access, &orbiqAccess::canSendRequestFor, RequestTypeAudience)) {
    finding.warn("restricted-after-its-hit",
                 "The restricted account has sent its one hit: the next one of the same run would "
                 "be refused.",
                 "Ask whoever runs the authorization server, if the account is to have more.");
  }
}

}  // namespace

Finding sendHit(Context& context) {
  Finding finding;
  if (!context.options.sends) {
    finding.skip("None is sent without --send.");
    return finding;
  }
  const HttpResult result =
      Platform::send({*context.hit, DeviceContext::userAgent(), SendingRules::kHitTimeout});
  const std::optional<HitFate> fate = SendingRules::fateAfter(
      result.response ? std::optional(result.response->status) : std::nullopt);
  if (!fate) {
    explainSilence(context, result, finding);
  } else if (fate == HitFate::Sent) {
    markSent(context, finding);
  } else {
    finding.fail("hit-status-" + std::to_string(result.response->status),
                 "The hit server answers with status " + std::to_string(result.response->status) +
                     (result.error ? " (" + result.error->text + ")" : "") +
                     ": the hit is dropped and never tried again.",
                 "Have the hit server answer with status 200.");
  }
  return finding;
}

}  // namespace orbiq::doctor
