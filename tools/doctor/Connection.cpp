// Whether the server, or the proxy before it, takes a connection.
#include <string>

#include "tools/doctor/Peer.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

bool isRefusal(long proxyStatus) { return proxyStatus != 0 && proxyStatus / 100 != 2; }

}  // namespace

void examineConnectionTo(const Way& way, const Connected& connected, Finding& finding) {
  const std::string whom = way.isOverProxy ? "the proxy at " + way.address : "the server";
  if (isRefusal(connected.proxyStatus)) {
    return finding.fail("proxy-refuses",
                        "The proxy at " + way.address +
                            " refuses to connect to the server: status " +
                            std::to_string(connected.proxyStatus) + ".",
                        connected.proxyStatus == 407
                            ? "Put the user and the password that it asks for into the proxy "
                              "variable."
                            : "Have the proxy let the server's name and port pass, or name the "
                              "server in no_proxy.");
  }
  if (!connected.isMade) {
    const bool isSilence = connected.code == CURLE_OPERATION_TIMEDOUT;
    const char* const cause = way.isOverProxy ? "proxy-unreachable"
                              : isSilence     ? "no-answer-to-connect"
                                              : "not-connected";
    const char* const advice =
        way.isOverProxy ? "Correct the proxy's address in the variable, or start the proxy."
        : isSilence     ? "See whether a firewall drops what is sent to the server's port."
                        : "See whether the server runs, and listens on this port.";
    return finding.fail(cause, "No connection to " + whom + ": " + connected.error + ".", advice);
  }
  finding.isFine((way.isOverProxy ? "Connected to " : "Connected to the server at ") +
                 (way.isOverProxy ? whom : connected.address) + ".");
}

Finding examineConnection(Context& context) {
  Finding finding;
  context.connected = connectTo(*context.url, context.options.caBundle, {});
  examineConnectionTo(context.way, context.connected, finding);
  return finding;
}

}  // namespace orbiq::doctor
