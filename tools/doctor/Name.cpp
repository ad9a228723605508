// Whether the server's name leads anywhere.
#include <netdb.h>

#include <memory>
#include <string>

#include "tools/doctor/Peer.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

std::string textOf(const addrinfo& found) {
  char text[NI_MAXHOST] = "?";
  getnameinfo(found.ai_addr, found.ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
  return text;
}

}  // namespace

void examineNameOf(const Url& url, const Way& way, Finding& finding) {
  if (!way.failure.empty()) {
    return finding.fail("proxy-name", "The proxy has no address: " + way.failure + ".",
                        "Correct the proxy's name in the variable.");
  }
  if (way.isOverProxy) {
    return finding.isFine("The name " + url.host() + " is left to the proxy at " + way.address +
                          ".");
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(url.host().c_str(), nullptr, &hints, &found);
  if (error != 0) {
    const bool mayPass = error == EAI_AGAIN;
    return finding.fail(mayPass ? "name-server" : "unknown-name",
                        "The name " + url.host() + " has no address: " + gai_strerror(error) + ".",
                        mayPass ? "See whether the machine's name servers answer."
                                : "Correct the server's name, or have it entered in the DNS.");
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, freeaddrinfo);
  std::string addresses;
  for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
    addresses += (addresses.empty() ? "" : ", ") + textOf(*each);
  }
  finding.isFine(url.host() + " is at " + addresses + ".");
}

Finding examineName(Context& context) {
  Finding finding;
  context.way = wayTo(*context.url);
  examineNameOf(*context.url, context.way, finding);
  return finding;
}

}  // namespace orbiq::doctor
