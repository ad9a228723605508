// Where a hit would be sent. Its server is not asked.
#include <string>

#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "tools/doctor/Peer.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {

Finding examineHitUrl(Context& context) {
  Finding finding;
  orbiqRequest request(nullptr, RequestTypeAudience, SendingModeHost, context.tagger->serial(),
                       context.tagger);
  request.setAuth(context.authorization);
  context.hit = request.url();
  if (!context.hit) {
    finding.fail(
        "hit-makes-no-url",
        "The host that the server names makes no URL with the account behind it, and every "
        "hit is dropped.",
        "Have the server name a host that makes one: no blanks, no line's end, no brackets.");
    return finding;
  }
  const std::string shown = shownUrl(context.hit->text());
  if (!context.hit->isHttp() || context.hit->host().empty()) {
    finding.fail("hit-has-no-address",
                 "A hit's URL would be " + inQuotes(shown) +
                     ", where nothing can be sent: it would "
                     "wait, and everything behind it.",
                 "Have the server name an http or https URL as the host.");
    return finding;
  }
  finding.isFine("A hit would be sent to " + shown + ".");
  examineNameOf(*context.hit, wayTo(*context.hit), finding);
  if (!context.options.sends && !context.options.checksServer) {
    finding.isFine("The hit server itself was not tried: --send does that, and counts a hit.");
  }
  return finding;
}

}  // namespace orbiq::doctor
