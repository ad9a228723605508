// The agent's audience taggers.
#include <utility>

#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"

void orbiqAgent::addorbiqAudienceTagger(std::shared_ptr<orbiqAudienceTagger> tagger) {
  orbiqLogger::log_withMode("A new orbiqAudienceTagger was created", orbiq::LoggingModeInfo);
  if (!tagger || orbiqAudienceTaggerWithSerial(tagger->serial())) return;
  if (orbiqAudienceTaggers.empty()) orbiqAudienceTaggers.reserve(3);
  auto key = orbiqTaggerIdentifier::orbiqTaggerIdentifierWithSerial(tagger->serial());
  orbiqAudienceTaggers.emplace(std::move(key), std::move(tagger));
}

std::shared_ptr<orbiqAudienceTagger> orbiqAgent::orbiqAudienceTaggerWithSerial(
    const orbiq::String& serial) const {
  const auto found =
      orbiqAudienceTaggers.find(orbiqTaggerIdentifier::orbiqTaggerIdentifierWithSerial(serial));
  return found == orbiqAudienceTaggers.end() ? nullptr : found->second;
}
