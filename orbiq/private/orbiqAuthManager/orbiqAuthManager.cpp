#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"

#include <utility>

#include "orbiq/services/platform/Ask.h"
#include "orbiq/services/platform/ForkGuard.h"

using orbiq::ask;

orbiqAuthManager& orbiqAuthManager::manager() {
  static auto* const only = new orbiqAuthManager();  // never destroyed
  return *only;
}

std::shared_ptr<orbiqAuth> orbiqAuthManager::authForTagger(const TaggerID& tagger) {
  const std::shared_ptr<orbiqAuth> cached = authFromCacheForKey(tagger);
  // A copy never says that it holds default values, so in effect only a missing record is fetched.
  if (!cached || cached->isDefaultValues()) authentificationInformationForTagger(tagger);
  return authFromCacheForKey(tagger);
}

std::shared_ptr<orbiqAuth> orbiqAuthManager::authFromCacheForTagger(const TaggerID& tagger) const {
  return authFromCacheForKey(tagger);
}

std::shared_ptr<orbiqAuth> orbiqAuthManager::authFromCacheForKey(const TaggerID& tagger) const {
  if (!tagger || orbiq::inForkedChild()) return nullptr;
  const orbiq::Lock lock(cacheAccessQueue);
  const auto found = orbiqAuths.find(tagger);
  return found == orbiqAuths.end() ? nullptr : ask(found->second, &orbiqAuth::copy);
}

void orbiqAuthManager::setAuthToCache_forKey(std::shared_ptr<orbiqAuth> auth,
                                             const TaggerID& tagger) {
  // Nobody could find what an identity without a serial, which is equal to nothing, is the key of.
  if (!tagger || tagger->serial().isNull() || orbiq::inForkedChild()) return;
  const orbiq::Lock lock(cacheAccessQueue);
  const auto found = orbiqAuths.find(tagger);
  if (found != orbiqAuths.end()) {
    found->second = std::move(auth);
  } else {
    orbiqAuths.emplace(tagger->copy(), std::move(auth));
  }
}

void orbiqAuthManager::forgetAuthForTagger(const TaggerID& tagger) {
  if (!tagger || orbiq::inForkedChild()) return;
  const orbiq::Lock lock(cacheAccessQueue);
  orbiqAuths.erase(tagger);
}

void orbiqAuthManager::clearCache() {
  if (orbiq::inForkedChild()) return;
  const orbiq::Lock lock(cacheAccessQueue);
  orbiqAuths.clear();
}

void orbiqAuthManager::hitSuccessfullySentForTagger(const TaggerID& tagger) {
  const std::shared_ptr<orbiqAuth> cached = authFromCacheForKey(tagger);
  const auto access =
      ask(ask(cached, &orbiqAuth::currentAccess), &orbiqAccess::hitSuccessfullySent);
  setAuthToCache_forKey(orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
                            ask(cached, &orbiqAuth::currentSession), access,
                            ask(cached, &orbiqAuth::isDefaultValues)),
                        tagger);
}
