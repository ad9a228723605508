#include "orbiq/c/Calls.h"
#include "orbiq/orbiq_c.h"
#include "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"

using orbiq::c::giveOut;
using orbiq::c::guarded;
using orbiq::c::isIndexOf;
using orbiq::c::withAgent;

namespace {

struct TaggerText {
  orbiq::String (orbiqTagger::*get)() const;
  void (orbiqTagger::*set)(orbiq::String);
};
using Tagger = orbiqTagger;
constexpr TaggerText kTaggerTexts[] = {
    {&Tagger::serial, nullptr},
    {&Tagger::theNewLevel1, &Tagger::setNewLevel1},
    {&Tagger::theNewLevel2, &Tagger::setNewLevel2},
    {&Tagger::theNewLevel3, &Tagger::setNewLevel3},
    {&Tagger::theNewLevel4, &Tagger::setNewLevel4},
    {&Tagger::theNewLevel5, &Tagger::setNewLevel5},
    {&Tagger::theNewLevel6, &Tagger::setNewLevel6},
    {&Tagger::theNewLevel7, &Tagger::setNewLevel7},
    {&Tagger::theNewLevel8, &Tagger::setNewLevel8},
    {&Tagger::theNewLevel9, &Tagger::setNewLevel9},
    {&Tagger::theNewLevel10, &Tagger::setNewLevel10},
    {&Tagger::theNewLevel11, &Tagger::setNewLevel11},
    {&Tagger::mediaContentId, &Tagger::setMediaContentId},
    {&Tagger::mediaDiffMode, &Tagger::setMediaDiffMode},
    {&Tagger::mediaChannel, &Tagger::setMediaChannel},
    {&Tagger::netMeasurement, &Tagger::setNetMeasurement},
};
static_assert(std::size(kTaggerTexts) == ORBIQ_NET_MEASUREMENT + 1);

// A handle is the registered tagger itself, which its agent never lets go.
orbiqAudienceTagger* taggerOf(orbiq_tagger* handle) {
  return reinterpret_cast<orbiqAudienceTagger*>(handle);
}
const orbiqAudienceTagger* taggerOf(const orbiq_tagger* handle) {
  return reinterpret_cast<const orbiqAudienceTagger*>(handle);
}

}  // namespace

orbiq_status orbiq_tagger_with_serial(const char* serial, orbiq_tagger** tagger) {
  if (tagger == nullptr) return ORBIQ_ERROR_ARGUMENT;
  *tagger = nullptr;
  if (serial == nullptr || *serial == '\0') return ORBIQ_ERROR_ARGUMENT;
  return withAgent([&](const orbiqAgent&) -> orbiq_status {
    const auto registered = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial(serial);
    *tagger = reinterpret_cast<orbiq_tagger*>(registered.get());
    return registered ? ORBIQ_OK : ORBIQ_ERROR_MEMORY;
  });
}

orbiq_status orbiq_tagger_send_hit(orbiq_tagger* tagger) {
  if (tagger == nullptr) return ORBIQ_ERROR_ARGUMENT;
  return withAgent([&](const orbiqAgent&) -> orbiq_status {
    taggerOf(tagger)->sendHit();
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_tagger_set_text(orbiq_tagger* tagger, orbiq_tagger_text which,
                                   const char* text) {
  return guarded([&]() -> orbiq_status {
    if (tagger == nullptr || !isIndexOf(kTaggerTexts, which)) return ORBIQ_ERROR_ARGUMENT;
    const auto set = kTaggerTexts[which].set;
    if (set == nullptr) return ORBIQ_ERROR_ARGUMENT;
    (taggerOf(tagger)->*set)(text);
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_tagger_get_text(const orbiq_tagger* tagger, orbiq_tagger_text which,
                                   char* buffer, size_t capacity, size_t* length) {
  return guarded([&]() -> orbiq_status {
    if (tagger == nullptr || !isIndexOf(kTaggerTexts, which)) return ORBIQ_ERROR_ARGUMENT;
    const auto get = kTaggerTexts[which].get;
    const orbiq::String text = (taggerOf(tagger)->*get)();
    return giveOut(text, buffer, capacity, length);
  });
}

orbiq_status orbiq_tagger_set_use_idfa(orbiq_tagger* tagger, bool use) {
  if (tagger == nullptr) return ORBIQ_ERROR_ARGUMENT;
  taggerOf(tagger)->setUseIDFA(use);
  return ORBIQ_OK;
}

orbiq_status orbiq_tagger_get_use_idfa(const orbiq_tagger* tagger, bool* use) {
  if (tagger == nullptr || use == nullptr) return ORBIQ_ERROR_ARGUMENT;
  *use = taggerOf(tagger)->useIDFA();
  return ORBIQ_OK;
}

orbiq_status orbiq_tagger_set_logging_mode(orbiq_tagger* tagger, orbiq_logging_mode mode) {
  return guarded([&]() -> orbiq_status {
    if (tagger == nullptr || mode < 0) return ORBIQ_ERROR_ARGUMENT;
    taggerOf(tagger)->setLoggingMode(static_cast<orbiq::LoggingMode>(mode));
    return ORBIQ_OK;
  });
}
