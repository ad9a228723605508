#pragma once

#include <cstdint>
#include <memory>

#include "orbiq/public/orbiqTagger/orbiqTagger.h"
#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/text/Parameters.h"
#include "orbiq/services/platform/text/String.h"

class orbiqTaggerID;

/// Counts audience events for one customer account.
class ORBIQ_EXPORT orbiqAudienceTagger : public orbiqTagger {
 public:
  /// The process's one tagger of that serial, made at the first call and kept for good. Any thread.
  /// The first call of all makes the agent: it reads the requests file and starts the library's
  /// threads; from then on `HostApplication::describe` is refused. Null only if memory has run out.
  static std::shared_ptr<orbiqAudienceTagger> orbiqAudienceTaggerWithSerial(
      const orbiq::String& serial);

  /// A tagger without a serial, with every setting zero. Its hits are refused.
  orbiqAudienceTagger() = default;
  /// A tagger that the agent does not know. Keeps a copy of the serial, which is not checked: with
  /// a null or empty one hits carry no "serial", and with a null one they are refused.
  explicit orbiqAudienceTagger(const orbiq::String& serial);
  ~orbiqAudienceTagger() override;

  /// Counts one event: composes a hit and hands it to the agent's queue. Never waits for the
  /// network or, once there is an agent, the disk, and reports nothing; a hit that the account's
  /// known access refuses is dropped. Any thread.
  void sendHit();

  /// Stores the value under the key. Does nothing for a null or empty value or key and for a null
  /// dictionary.
  static void addParam_withKey_inDictionary(const orbiq::String& value, const orbiq::String& key,
                                            orbiq::Parameters* dictionary);
  /// The same, and cuts a value of more than `limit` UTF-16 code units to that many; 0 is no limit.
  /// No character is cut in two, so an empty text is stored where not even the first one fits.
  static void addParam_withKey_andLengthLimit_inDictionary(const orbiq::String& value,
                                                           const orbiq::String& key,
                                                           std::uintptr_t limit,
                                                           orbiq::Parameters* dictionary);

 private:
  std::shared_ptr<orbiqTaggerID> taggerID;
};
