#include "orbiq/private/orbiqAuthManager/orbiqAuthManager.h"

#include <unordered_map>
#include <utility>

#include "orbiq/services/orbiqLogger/WithoutThrowing.h"
#include "orbiq/services/platform/base/Ask.h"
#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/threads/Mutex.h"

using orbiq::ask;
using orbiq::withoutThrowing;

namespace {

struct Cache {
  // In the place of the queue "com.bramwell.cacheAccessQueue". It is held for a few instructions,
  // so one that readers share would cost more than it saves.
  orbiq::Mutex cacheAccessQueue;
  std::unordered_map<orbiqAuthManager::TaggerID, std::shared_ptr<orbiqAuth>, orbiq::ObjectHash,
                     orbiq::ObjectIsEqual>
      orbiqAuths ORBIQ_GUARDED_BY(cacheAccessQueue);
};

Cache& cache() {
  static orbiq::NeverDestroyed<Cache> only;
  return *only;
}

}  // namespace

orbiqAuthManager& orbiqAuthManager::manager() {
  static constinit orbiqAuthManager only;  // has nothing to destroy
  return only;
}

std::shared_ptr<orbiqAuth> orbiqAuthManager::authForTagger(const TaggerID& tagger) {
  return withoutThrowing([&] { return obtainAuth(tagger); });
}

std::shared_ptr<orbiqAuth> orbiqAuthManager::obtainAuth(const TaggerID& tagger) {
  // A stored record is used even if it holds default values: its copies, which others get, never
  // say that they do.
  if (!stored(tagger)) exchange(tagger);
  return ask(stored(tagger), &orbiqAuth::copy);
}

std::shared_ptr<orbiqAuth> orbiqAuthManager::authFromCacheForTagger(const TaggerID& tagger) const {
  return authFromCacheForKey(tagger);
}

std::shared_ptr<orbiqAuth> orbiqAuthManager::authFromCacheForKey(const TaggerID& tagger) const {
  return withoutThrowing([&] { return ask(stored(tagger), &orbiqAuth::copy); });
}

std::shared_ptr<orbiqAuth> orbiqAuthManager::stored(const TaggerID& tagger) const {
  if (!tagger || orbiq::inForkedChild()) return nullptr;
  const orbiq::Lock lock(cache().cacheAccessQueue);
  const auto found = cache().orbiqAuths.find(tagger);
  return found == cache().orbiqAuths.end() ? nullptr : found->second;
}

void orbiqAuthManager::setAuthToCache_forKey(std::shared_ptr<orbiqAuth> auth,
                                             const TaggerID& tagger) {
  withoutThrowing([&] { store(std::move(auth), tagger); });
}

void orbiqAuthManager::store(std::shared_ptr<orbiqAuth> auth, const TaggerID& tagger) {
  // Nobody could find what an identity without a serial, which is equal to nothing, is the key of.
  if (!tagger || tagger->serial().isNull() || orbiq::inForkedChild()) return;
  const orbiq::Lock lock(cache().cacheAccessQueue);
  const auto found = cache().orbiqAuths.find(tagger);
  if (found != cache().orbiqAuths.end()) {
    found->second = std::move(auth);
  } else {
    cache().orbiqAuths.emplace(tagger->copy(), std::move(auth));
  }
}

void orbiqAuthManager::forgetAuthForTagger(const TaggerID& tagger) {
  if (!tagger || orbiq::inForkedChild()) return;
  const orbiq::Lock lock(cache().cacheAccessQueue);
  cache().orbiqAuths.erase(tagger);
}

void orbiqAuthManager::clearCache() {
  if (orbiq::inForkedChild()) return;
  const orbiq::Lock lock(cache().cacheAccessQueue);
  cache().orbiqAuths.clear();
}

void orbiqAuthManager::authentificationInformationForTagger(const TaggerID& tagger) {
  withoutThrowing([&] { exchange(tagger); });
}

std::shared_ptr<orbiqAccess> orbiqAuthManager::hitSuccessfullySentForTagger(
    const TaggerID& tagger) {
  const std::shared_ptr<orbiqAuth> cached = stored(tagger);
  // Before anything that takes memory: a restricted account has had its hit.
  const auto access =
      ask(ask(cached, &orbiqAuth::currentAccess), &orbiqAccess::hitSuccessfullySent);
  withoutThrowing([&] {
    store(orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
              ask(cached, &orbiqAuth::currentSession), access,
              ask(cached, &orbiqAuth::isDefaultValues)),
          tagger);
  });
  return access;
}
