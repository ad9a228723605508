// Whether the library would take this machine for connected.
#include <net/if.h>

#include <memory>
#include <optional>
#include <string>

#include "orbiq/services/orbiqReachability/orbiqReachability.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/network/RouteLookup.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

void examineRoute(Finding& finding) {
  RouteLookup lookup;
  if (const int error = lookup.open()) {
    return finding.warn("no-netlink",
                        "The kernel cannot be asked for routes (" + causeOf(error) +
                            "), so everything counts as reachable.",
                        "Allow the process netlink sockets.");
  }
  const std::optional<Route> route = lookup.lookUp(IpAddress());
  if (!route || route->kind == Route::Kind::kNone) return;
  char name[IF_NAMESIZE] = "?";
  if_indextoname(static_cast<unsigned>(route->link), name);
  finding.isFine(std::string("There is a route to the internet, over ") + name +
                 (route->isWWAN ? ", a mobile network." : "."));
}

}  // namespace

Finding examineNetwork(Context& context) {
  Finding finding;
  const auto monitor = orbiqReachability::reachabilityForInternetConnection();
  const bool isReachable = monitor && monitor->isReachable();
  if (context.options.assumesReachable) {
    finding.isFine("The kernel is not asked: the application assumes that it is connected.");
    return finding;
  }
  examineRoute(finding);
  if (!isReachable) {
    finding.fail("no-route",
                 "There is no route to the internet over a link with a carrier, so the library "
                 "keeps every hit and asks nobody.",
                 "Add a default route. If the servers are on this machine or on a closed network, "
                 "set HostDescription::assumeReachable (here: --assume-reachable).");
  }
  return finding;
}

}  // namespace orbiq::doctor
