#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"

#include <exception>
#include <limits>
#include <utility>

#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/Ask.h"
#include "orbiq/services/platform/Mutex.h"

using orbiq::ask;

namespace {

// Marks an audience tagger; equality of identities compares it.
constexpr std::intptr_t kAudiencePartialID = std::numeric_limits<std::intptr_t>::max();

constinit orbiq::Mutex factoryLock;

/// Texts that every hit has, shared by all of them. "on-ios" is what the servers know.
struct ConstantTexts {
  orbiq::String serialKey = "serial";
  orbiq::String tagNameKey = "tn";
  orbiq::String tagName = "on-ios";
  orbiq::String versionKey = "v";
  orbiq::String version = "1.0";
  orbiq::String randomKey = "n";
  orbiq::String deviceKey = "did";

  static const ConstantTexts& shared() {
    static const auto* const texts = new ConstantTexts();  // never destroyed
    return *texts;
  }
};

}  // namespace

std::shared_ptr<orbiqAudienceTagger> orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(
    const orbiq::String& serial) try {
  if (orbiqAgent::isForkedAway()) return std::make_shared<orbiqAudienceTagger>(serial);
  orbiqAgent& agent = orbiqAgent::sharedAgent();  // made outside the lock, as that takes its time
  const orbiq::Lock lock(factoryLock);
  if (auto tagger = agent.orbiqAudienceTaggerWithSerial(serial)) return tagger;
  auto tagger = std::make_shared<orbiqAudienceTagger>(serial);
  agent.addorbiqAudienceTagger(tagger);
  return tagger;
} catch (const std::exception& error) {
  return orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError), nullptr;
}

orbiqAudienceTagger::orbiqAudienceTagger(const orbiq::String& serial) {
  setUseIDFA(true);
  _serial = serial.copy();
  _loggingMode = orbiq::LoggingModeError;  // the library's threshold stays as it is
  taggerID = std::make_shared<orbiqTaggerID>(_serial, kAudiencePartialID, false);
}

void orbiqAudienceTagger::sendHit() try {
  if (orbiqAgent::isForkedAway()) return;
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  const auto auth = orbiqAuthManager::manager().authFromCacheForTagger(taggerID);
  if (auth &&
      !ask(auth->currentAccess(), &orbiqAccess::canSendRequestFor, orbiq::RequestTypeAudience)) {
    agent.countRefusedHit();
    return;
  }
  const ConstantTexts& texts = ConstantTexts::shared();
  // The tagger's "v" and "n" take the place of the defaults' on purpose.
  orbiq::Parameters parameters = agent.defaultParametersForRequest();
  addParam_withKey_inDictionary(_serial, texts.serialKey, &parameters);
  addParam_withKey_inDictionary(texts.tagName, texts.tagNameKey, &parameters);
  addParam_withKey_inDictionary(texts.version, texts.versionKey, &parameters);
  addParam_withKey_inDictionary(orbiq::DeviceContext::nineRandomDigits(), texts.randomKey,
                                &parameters);
  if (useIDFA()) {
    addParam_withKey_inDictionary(orbiqAgent::appleDID(), texts.deviceKey, &parameters);
  }
  agent.addRequestToQueue(
      orbiqRequest::orbiqRequestWithParameters_withRequestType_forSendingMode_forSerial_forTagger(
          std::make_shared<const orbiq::Parameters>(std::move(parameters)),
          orbiq::RequestTypeAudience, orbiq::SendingModeHost, _serial, taggerID));
} catch (const std::exception& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
}

void orbiqAudienceTagger::addParam_withKey_inDictionary(const orbiq::String& value,
                                                        const orbiq::String& key,
                                                        orbiq::Parameters* dictionary) {
  addParam_withKey_andLengthLimit_inDictionary(value, key, 0, dictionary);
}

void orbiqAudienceTagger::addParam_withKey_andLengthLimit_inDictionary(
    const orbiq::String& value, const orbiq::String& key, std::uintptr_t limit,
    orbiq::Parameters* dictionary) {
  if (value.isEmpty() || key.isEmpty() || dictionary == nullptr) return;
  const bool isTooLong = limit != 0 && value.length() > limit;
  dictionary->insert_or_assign(key.toStdString(), isTooLong ? value.prefix(limit) : value);
}
