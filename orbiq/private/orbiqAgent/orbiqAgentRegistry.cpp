// The agent's audience taggers.
#include <utility>

#include "orbiq/private/orbiqAgent/AgentState.h"
#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"

void orbiqAgent::addorbiqAudienceTagger(std::shared_ptr<orbiqAudienceTagger> tagger) {
  orbiqLogger::log_withMode("A new orbiqAudienceTagger was created", orbiq::LoggingModeInfo);
  if (!tagger || orbiqAudienceTaggerWithSerial(tagger->serial())) return;
  auto& taggers = State::ofProcess().orbiqAudienceTaggers;
  if (taggers.empty()) taggers.reserve(3);
  auto key = orbiqTaggerIdentifier::orbiqTaggerIdentifierWithSerial(tagger->serial());
  taggers.emplace(std::move(key), std::move(tagger));
}

std::shared_ptr<orbiqAudienceTagger> orbiqAgent::orbiqAudienceTaggerWithSerial(
    const orbiq::String& serial) const {
  const auto& taggers = State::ofProcess().orbiqAudienceTaggers;
  const auto found = taggers.find(orbiqTaggerIdentifier::orbiqTaggerIdentifierWithSerial(serial));
  return found == taggers.end() ? nullptr : found->second;
}
