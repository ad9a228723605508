// Whether the server's certificates would be trusted.
#include <unistd.h>

#include <optional>
#include <string>

#include "orbiq/services/platform/host/Platform.h"
#include "tools/doctor/Peer.h"
#include "tools/doctor/Shown.h"
#include "tools/doctor/Steps.h"

namespace orbiq::doctor {
namespace {

constexpr double kSoon = 14 * 86400.0;

bool isOver(const Certificate& certificate, const Date& now) {
  return certificate.validUntil && certificate.validUntil->secondsSince(now) < 0;
}

bool isToCome(const Certificate& certificate, const Date& now) {
  return certificate.validFrom && certificate.validFrom->secondsSince(now) > 0;
}

std::string asNow(const Date& now) { return " This machine's clock says " + shownTime(now) + "."; }

/// Whether certificates were judged at all.
bool isJudged(const Connected& connected) {
  return connected.code == CURLE_OK || connected.code == CURLE_PEER_FAILED_VERIFICATION ||
         connected.code == CURLE_SSL_CACERT_BADFILE;
}

/// Why the chain is not trusted. The dates explain it, where one of them does.
void explainChain(const Connected& connected, const std::string& error, Finding& finding) {
  const Date now = Platform::now();
  for (const Certificate& each : connected.chain) {
    const std::string which = "The certificate of " + inQuotes(each.subject);
    if (isOver(each, now)) {
      return finding.fail("expired",
                          which + " expired on " + shownTime(*each.validUntil) + "." + asNow(now),
                          "Renew it on the server. If the clock is wrong, set it.");
    }
    if (isToCome(each, now)) {
      return finding.fail(
          "not-yet-valid",
          which + " is valid only from " + shownTime(*each.validFrom) + " on." + asNow(now),
          "Set the clock, if it is behind; otherwise wait, or replace the "
          "certificate.");
    }
  }
  const std::string issuer = connected.chain.empty() ? "?" : connected.chain.back().issuer;
  finding.fail("unknown-authority",
               "Nobody whom this machine trusts vouches for the server's certificate, which was "
               "issued by " +
                   inQuotes(issuer) + ": " + error + ".",
               "Install ca-certificates; have the server send its intermediate certificates; or "
               "set HostDescription::caBundle (here: --ca-bundle) to the authority's certificate.");
}

void describeChain(const Connected& connected, Finding& finding) {
  if (connected.chain.empty()) return finding.isFine("The server's certificate is trusted.");
  const Certificate& own = connected.chain.front();
  const std::string until = own.validUntil ? shownTime(*own.validUntil) : "an unknown date";
  finding.isFine("The certificate of " + inQuotes(own.subject) + " is trusted and valid until " +
                 until + "; the server sends " + std::to_string(connected.chain.size()) +
                 " in all. Its names are " + inQuotes(own.names) + ", its issuer is " +
                 inQuotes(own.issuer) + ".");
  const double left = own.validUntil ? own.validUntil->secondsSince(Platform::now()) : kSoon;
  if (left < kSoon) {
    finding.warn("expires-soon", "It expires in " + shownDuration(left) + ".",
                 "Renew it on the server.");
  }
}

}  // namespace

void examineTlsOf(const Url& url, const Connected& connected, const std::string& caBundle,
                  Finding& finding) {
  if (url.scheme() != "https") {
    return finding.isFine("None: " + shownUrl(url.text()) + " is http.");
  }
  // The step "Description and environment" says so, and why.
  if (!caBundle.empty() && access(caBundle.c_str(), R_OK) != 0) {
    return finding.skip("Not tried: the certificates to trust cannot be read.");
  }
  const Connected ofChain = connectTo(url, caBundle, {.chain = true});
  const Connected ofName = connectTo(url, caBundle, {.name = true});
  for (const Connected* each : {&connected, &ofChain, &ofName}) {
    if (isJudged(*each)) continue;
    return finding.fail("tls-handshake",
                        "The server does not agree on a TLS connection: " + each->error + ".",
                        "See whether it speaks TLS on this port, in version 1.2 or later.");
  }
  if (ofChain.code != CURLE_OK) explainChain(connected, ofChain.error, finding);
  if (ofName.code != CURLE_OK) {
    const std::string names = connected.chain.empty() ? "" : connected.chain.front().names;
    finding.fail("wrong-name",
                 "The server's certificate is not for " + url.host() + ", but for " +
                     (names.empty() ? "no name at all" : inQuotes(names)) + ".",
                 "Name the server as its certificate does, or have the certificate name it.");
  }
  if (finding.level() != Level::kFailure) describeChain(connected, finding);
}

Finding examineTls(Context& context) {
  Finding finding;
  examineTlsOf(*context.url, context.connected, context.options.caBundle, finding);
  if (finding.level() == Level::kSkipped) {
    context.obstacle = "the certificates to trust cannot be read.";
  }
  return finding;
}

}  // namespace orbiq::doctor
