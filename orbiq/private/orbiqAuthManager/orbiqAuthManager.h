#pragma once

#include <atomic>
#include <memory>

#include "orbiq/private/orbiqAgent/orbiqTaggerID/orbiqTaggerID.h"
#include "orbiq/private/orbiqAuthManager/orbiqAccess/orbiqAccess.h"
#include "orbiq/private/orbiqAuthManager/orbiqAuth/orbiqAuth.h"
#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/text/String.h"

/// The process's authorizations, one per tagger identity, in memory only. Any thread. A null
/// identity, or one without a serial, reads null and stores nothing. Where memory runs out, an
/// operation says so in the log, answers null and stores nothing.
class ORBIQ_EXPORT orbiqAuthManager {
 public:
  /// The one manager of the process, made on first use and never destroyed.
  static orbiqAuthManager& manager();

  orbiqAuthManager(const orbiqAuthManager&) = delete;
  orbiqAuthManager& operator=(const orbiqAuthManager&) = delete;

  /// The key of an authorization.
  using TaggerID = std::shared_ptr<const orbiqTaggerID>;

  /// The cached authorization, fetched first if there is none: then the call blocks for the whole
  /// exchange. A fallback, once stored, is used as it stands until it is forgotten.
  std::shared_ptr<orbiqAuth> authForTagger(const TaggerID& tagger);
  /// The cached authorization or null; never fetches.
  std::shared_ptr<orbiqAuth> authFromCacheForTagger(const TaggerID& tagger) const;
  /// A copy of the stored record, which shares its session and access; null if there is none.
  std::shared_ptr<orbiqAuth> authFromCacheForKey(const TaggerID& tagger) const;
  /// Stores the record in place of an earlier one, under a copy of the key.
  void setAuthToCache_forKey(std::shared_ptr<orbiqAuth> auth, const TaggerID& tagger);
  /// Removes the record; its next use fetches another. Harmless if there is none.
  void forgetAuthForTagger(const TaggerID& tagger);
  /// Removes all records.
  void clearCache();
  /// Marks the tagger's access, which all copies share. With nothing cached, a record without
  /// session and access is stored, which refuses everything until it is forgotten.
  /// Returns the marked access, null if there is none.
  std::shared_ptr<orbiqAccess> hitSuccessfullySentForTagger(const TaggerID& tagger);

  /// The server's clock minus the device's, in seconds, as last measured; 0 before, and after
  /// an answer without a date that could be read.
  double timeIntervalBetweenServerAndDevice() const {
    return deltaBetweenServerAndDevice.load(std::memory_order_relaxed);
  }

  /// Asks the authorization server and stores its answer or the fallback. Where this machine lacks
  /// memory or descriptors nothing is stored, and the next use asks again. An identity without a
  /// serial is an error, which is logged; then nothing is stored. Blocks. Of two exchanges for one
  /// tagger at once, the later answer stays.
  void authentificationInformationForTagger(const TaggerID& tagger);
  /// "denied" and "restricted" in just this spelling; everything else, null too, is full access.
  static orbiq::AccessMode accessModeFromString(const orbiq::String& text);

 private:
  friend class orbiqAgent;
  constexpr orbiqAuthManager() = default;

  /// `authForTagger`, but throws `std::bad_alloc`: a hit is not refused because memory ran out.
  ORBIQ_HIDDEN std::shared_ptr<orbiqAuth> obtainAuth(const TaggerID& tagger);
  /// The record itself, or null.
  ORBIQ_HIDDEN std::shared_ptr<orbiqAuth> stored(const TaggerID& tagger) const;
  ORBIQ_HIDDEN void store(std::shared_ptr<orbiqAuth> auth, const TaggerID& tagger);
  ORBIQ_HIDDEN void exchange(const TaggerID& tagger);

  std::atomic<double> deltaBetweenServerAndDevice{0};
};
