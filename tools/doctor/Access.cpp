// What the library itself makes of the server's answer.
#include <string>

#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/RequestEnumerations.h"
#include "orbiq/services/platform/base/Ask.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {

Finding examineAccess(Context& context) {
  Finding finding;
  context.authorization = orbiqAuthManager::manager().authForTagger(context.tagger);
  const auto access = ask(context.authorization, &orbiqAuth::currentAccess);
  if (!access || !access->fallbackCause().isNull()) {
    const std::string cause = access ? access->fallbackCause().toStdString() : "out of memory";
    finding.fail("fallback",
                 "The library gets no authorization (" + cause +
                     "), and a fallback stands in for "
                     "it until the application is restarted.",
                 "Restart the application once the server answers as it should.");
  } else if (context.options.checksServer) {
    finding.isFine("The library takes the answer for an authorization.");
  } else if (!access->canSendRequestFor(RequestTypeAudience)) {
    finding.fail("denied", "Access is denied: every hit of this account is dropped.",
                 "Check the account's name, and ask whoever runs the authorization server.");
  } else if (access->accessMode() == AccessModeRestricted) {
    finding.warn("restricted",
                 "Access is restricted: each run of the application sends one hit, and every "
                 "further one is refused.",
                 "Ask whoever runs the authorization server, if the account is to have more.");
  } else {
    finding.isFine("Access is full: every hit is sent.");
  }
  return finding;
}

}  // namespace orbiq::doctor
