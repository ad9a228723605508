#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"

#include <exception>
#include <limits>
#include <utility>

#include "orbiq/private/orbiqAgent/DeviceContext/DeviceContext.h"
#include "orbiq/private/orbiqAgent/orbiqAgent.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"
#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/base/Ask.h"
#include "orbiq/services/platform/threads/Mutex.h"

using orbiq::ask;

namespace {

// Marks an audience tagger; equality of identities compares it.
constexpr std::intptr_t kAudiencePartialID = std::numeric_limits<std::intptr_t>::max();

constinit orbiq::Mutex factoryLock;

/// Texts that every hit has. "on-ios" is what the servers know.
struct ConstantTexts {
  orbiq::String didKey = orbiq::String::lasting("did");
  orbiq::String nKey = orbiq::String::lasting("n");
  orbiq::String serialKey = orbiq::String::lasting("serial");
  orbiq::String tnKey = orbiq::String::lasting("tn");
  orbiq::String vKey = orbiq::String::lasting("v");
  orbiq::String tagName = orbiq::String::lasting("on-ios");
  orbiq::String version = orbiq::String::lasting("1.0");

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

// Here, so that the library has the class's virtual table, however it is optimised.
orbiqAudienceTagger::~orbiqAudienceTagger() = default;

void orbiqAudienceTagger::sendHit() try {
  if (orbiqAgent::isForkedAway()) return;
  orbiqAgent& agent = orbiqAgent::sharedAgent();
  const auto auth = orbiqAuthManager::manager().authFromCacheForTagger(taggerID);
  const auto access = ask(auth, &orbiqAuth::currentAccess);
  if (auth && !ask(access, &orbiqAccess::canSendRequestFor, orbiq::RequestTypeAudience)) {
    agent.countRefusedHit(_serial, access);
    return;
  }
  const ConstantTexts& texts = ConstantTexts::shared();
  // The agent's default parameters, "v" and "n", are not asked for: the tagger's own take their
  // place on purpose. Stored in the order of the keys, as that is cheapest.
  orbiq::Parameters parameters;
  parameters.reserve(5);
  if (useIDFA()) {
    orbiq::String did = orbiqAgent::appleDID();
    if (!did.isEmpty()) parameters.emplace(texts.didKey, std::move(did));
  }
  parameters.emplace(texts.nKey, orbiq::DeviceContext::nineRandomDigits());
  if (!_serial.isEmpty()) parameters.emplace(texts.serialKey, _serial);
  parameters.emplace(texts.tnKey, texts.tagName);
  parameters.emplace(texts.vKey, texts.version);
  agent.addRequestToQueue(
      orbiqRequest::orbiqRequestWithParameters_withRequestType_forSendingMode_forSerial_forTagger(
          std::make_shared<const orbiq::Parameters>(std::move(parameters)),
          orbiq::RequestTypeAudience, orbiq::SendingModeHost, _serial, taggerID));
} catch (const std::exception& error) {
  orbiqLogger::log_withMode(error.what(), orbiq::LoggingModeError);
  orbiqAgent::sharedAgent().countLostHit();
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
  dictionary->insert_or_assign(key, isTooLong ? value.prefix(limit) : value);
}
