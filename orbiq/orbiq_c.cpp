#include "orbiq/orbiq_c.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "orbiq/orbiq.h"
#include "orbiq/services/platform/Platform.h"
#include "orbiq/services/platform/Utf8.h"

struct orbiq_host {
  orbiq::HostDescription description;
};

using orbiq::Condition;
using orbiq::Lock;

namespace {

/// What every function that can fail runs in.
template <class Call>
orbiq_status guarded(const Call& call) noexcept try {
  return call();
} catch (const std::bad_alloc&) {
  return ORBIQ_ERROR_MEMORY;
} catch (...) {
  return ORBIQ_ERROR_SYSTEM;
}

/// The same for what needs the agent.
template <class Call>
orbiq_status withAgent(const Call& call) noexcept {
  return guarded([&]() -> orbiq_status {
    if (orbiqAgent::isForkedAway()) return ORBIQ_ERROR_FORKED;
    return call(orbiqAgent::sharedAgent());
  });
}

/// Through which every line goes to a sink of C's. What the sink needs may go away before the
/// process ends, so it can be closed.
class SinkGate {
 public:
  static SinkGate& shared() {
    static auto* const only = new SinkGate();  // never destroyed
    return *only;
  }

  /// False if it is closed; else `leave` must follow.
  bool enter() {
    const Lock lock(_lock);
    if (!_isClosed) ++_inside;
    return !_isClosed;
  }
  void leave() {
    const Lock lock(_lock);
    if (--_inside == 0) _lock.broadcast();
  }
  void closeAndWait() {
    const Lock lock(_lock);
    _isClosed = true;
    while (_inside > 0) _lock.wait();
  }

 private:
  Condition _lock;
  bool _isClosed ORBIQ_GUARDED_BY(_lock) = false;
  std::size_t _inside ORBIQ_GUARDED_BY(_lock) = 0;
};

bool canHold(const char* buffer, std::size_t capacity) {
  return buffer != nullptr || capacity == 0;
}

/// The most bytes, not above `room`, that end no character halfway.
std::size_t wholeCharacters(std::string_view text, std::size_t room) {
  if (text.size() <= room) return text.size();
  std::size_t bytes = 0;
  while (true) {
    const std::size_t next = bytes + orbiq::decodeUtf8(text.substr(bytes)).byteCount;
    if (next > room) return bytes;
    bytes = next;
  }
}

orbiq_status giveOut(const orbiq::String& text, char* buffer, std::size_t capacity,
                     std::size_t* length) {
  if (!canHold(buffer, capacity)) return ORBIQ_ERROR_ARGUMENT;
  const std::string_view characters = text.view();
  if (length != nullptr) *length = characters.size();
  if (capacity > 0) {
    const std::size_t count = wholeCharacters(characters, capacity - 1);
    std::copy_n(characters.data(), count, buffer);
    buffer[count] = '\0';
  }
  if (text.isNull()) return ORBIQ_NONE;
  const bool onlyMeasured = buffer == nullptr;
  return onlyMeasured || characters.size() < capacity ? ORBIQ_OK : ORBIQ_ERROR_BUFFER;
}

constexpr orbiq::String orbiq::HostDescription::*kHostTexts[] = {
    &orbiq::HostDescription::bundleIdentifier, &orbiq::HostDescription::bundleName,
    &orbiq::HostDescription::shortVersion,     &orbiq::HostDescription::authorizationServer,
    &orbiq::HostDescription::libraryDirectory, &orbiq::HostDescription::caBundle,
};
static_assert(std::size(kHostTexts) == ORBIQ_CA_BUNDLE + 1);

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

template <class Table>
bool isIndexOf(const Table& table, std::int32_t which) {
  return which >= 0 && static_cast<std::size_t>(which) < std::size(table);
}

// A handle is the registered tagger itself, which its agent never lets go.
orbiqAudienceTagger* taggerOf(orbiq_tagger* handle) {
  return reinterpret_cast<orbiqAudienceTagger*>(handle);
}
const orbiqAudienceTagger* taggerOf(const orbiq_tagger* handle) {
  return reinterpret_cast<const orbiqAudienceTagger*>(handle);
}

bool isLength(double number) { return std::isfinite(number) && number >= 0; }

}  // namespace

const char* orbiq_status_text(orbiq_status status) {
  switch (status) {
    case ORBIQ_OK:
      return "done";
    case ORBIQ_NONE:
      return "there is none";
    case ORBIQ_ERROR_ARGUMENT:
      return "an argument is null or out of range";
    case ORBIQ_ERROR_REFUSED:
      return "the description was refused";
    case ORBIQ_ERROR_BUFFER:
      return "the text does not fit the buffer";
    case ORBIQ_ERROR_MEMORY:
      return "memory has run out";
    case ORBIQ_ERROR_KEYCHAIN:
      return "the keychain could not do it";
    case ORBIQ_ERROR_FORKED:
      return "the library does nothing in a forked process";
    case ORBIQ_ERROR_SYSTEM:
      return "the system refused a resource";
    default:
      return "unknown status";
  }
}

const char* orbiq_version() { return orbiq_iOSVersionString; }

// ---- The host -----------------------------------------------------------------------------------

orbiq_host* orbiq_host_new() { return new (std::nothrow) orbiq_host(); }

void orbiq_host_free(orbiq_host* host) { delete host; }

orbiq_status orbiq_host_set_text(orbiq_host* host, orbiq_host_text which, const char* text) {
  return guarded([&]() -> orbiq_status {
    if (host == nullptr || !isIndexOf(kHostTexts, which)) return ORBIQ_ERROR_ARGUMENT;
    host->description.*kHostTexts[which] = text;
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_host_set_main_screen(orbiq_host* host, double width, double height, double scale,
                                        double nativeScale) {
  if (host == nullptr || !isLength(width) || !isLength(height) || !isLength(scale) ||
      !isLength(nativeScale)) {
    return ORBIQ_ERROR_ARGUMENT;
  }
  using orbiq::GraphicsFloat;
  orbiq::Screen screen{.width = static_cast<GraphicsFloat>(width),
                       .height = static_cast<GraphicsFloat>(height),
                       .scale = static_cast<GraphicsFloat>(scale)};
  if (nativeScale > 0) screen.nativeScale = static_cast<GraphicsFloat>(nativeScale);
  host->description.mainScreen = screen;
  return ORBIQ_OK;
}

orbiq_status orbiq_host_set_user_interface_idiom(orbiq_host* host, int32_t idiom) {
  if (host == nullptr || idiom < 0 || idiom > 2) return ORBIQ_ERROR_ARGUMENT;
  host->description.userInterfaceIdiom = idiom;
  return ORBIQ_OK;
}

orbiq_status orbiq_host_set_durable(orbiq_host* host, bool durable) {
  if (host == nullptr) return ORBIQ_ERROR_ARGUMENT;
  host->description.durability =
      durable ? orbiq::Durability::PowerLoss : orbiq::Durability::ProcessEnd;
  return ORBIQ_OK;
}

orbiq_status orbiq_host_set_log_sink(orbiq_host* host, orbiq_log_sink sink, void* context) {
  return guarded([&]() -> orbiq_status {
    if (host == nullptr) return ORBIQ_ERROR_ARGUMENT;
    host->description.logSink = {};
    if (sink == nullptr) return ORBIQ_OK;
    host->description.logSink = [sink, context](const orbiq::LogLine& line) {
      const std::string text(line.text);  // for the zero byte at its end
      if (!SinkGate::shared().enter()) return;
      sink(context, static_cast<orbiq_logging_mode>(line.mode), text.c_str(), text.size(),
           line.time.secondsSince1970());
      SinkGate::shared().leave();
    };
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_host_set_advertising_identifier(orbiq_host* host,
                                                   orbiq_advertising_identifier identifier,
                                                   void* context) {
  return guarded([&]() -> orbiq_status {
    if (host == nullptr) return ORBIQ_ERROR_ARGUMENT;
    host->description.advertisingIdentifier = {};
    if (identifier == nullptr) return ORBIQ_OK;
    host->description.advertisingIdentifier = [identifier, context]() -> orbiq::String {
      char buffer[256] = "";
      if (!identifier(context, buffer, sizeof buffer)) return nullptr;
      return std::string_view(buffer, strnlen(buffer, sizeof buffer));
    };
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_host_describe(const orbiq_host* host, char* reason, size_t capacity) {
  return guarded([&]() -> orbiq_status {
    if (!canHold(reason, capacity)) return ORBIQ_ERROR_ARGUMENT;
    if (host == nullptr) {
      giveOut(orbiq_status_text(ORBIQ_ERROR_ARGUMENT), reason, capacity, nullptr);
      return ORBIQ_ERROR_ARGUMENT;
    }
    giveOut(orbiq_status_text(ORBIQ_ERROR_MEMORY), reason, capacity, nullptr);
    const orbiq::String refusal = orbiq::HostApplication::describe(host->description);
    giveOut(refusal, reason, capacity, nullptr);
    return refusal.isNull() ? ORBIQ_OK : ORBIQ_ERROR_REFUSED;
  });
}

orbiq_status orbiq_remove_log_sink() {
  return guarded([]() -> orbiq_status {
    orbiq::SystemLog::setSink({});
    SinkGate::shared().closeAndWait();
    return ORBIQ_OK;
  });
}

// ---- Taggers ------------------------------------------------------------------------------------

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
    return giveOut((taggerOf(tagger)->*kTaggerTexts[which].get)(), buffer, capacity, length);
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
    if (tagger == nullptr || mode < ORBIQ_LOG_INFO || mode > ORBIQ_LOG_ERROR) {
      return ORBIQ_ERROR_ARGUMENT;
    }
    taggerOf(tagger)->setLoggingMode(static_cast<orbiq::LoggingMode>(mode));
    return ORBIQ_OK;
  });
}

// ---- The process --------------------------------------------------------------------------------

orbiq_status orbiq_post_will_enter_foreground() {
  return guarded([]() -> orbiq_status {
    if (orbiqAgent::isForkedAway()) return ORBIQ_ERROR_FORKED;
    orbiq::NotificationCenter::defaultCenter().postNotificationName(
        orbiq::UIApplicationWillEnterForegroundNotification);
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_get_statistics(orbiq_statistics* statistics, size_t size) {
  if (statistics == nullptr) return ORBIQ_ERROR_ARGUMENT;
  return withAgent([&](const orbiqAgent& agent) -> orbiq_status {
    const orbiq::Statistics counts = agent.statistics();
    const orbiq_statistics all = {
        .accepted = counts.accepted,
        .sent = counts.sent,
        .refused = counts.refused,
        .answered_with_another_status = counts.answeredWithAnotherStatus,
        .given_up = counts.givenUp,
        .pushed_out = counts.pushedOut,
        .discarded_at_start = counts.discardedAtStart,
        .discarded_at_network_return = counts.discardedAtNetworkReturn,
        .pending = counts.pending,
        .additions_waiting_high_water = counts.additionsWaitingHighWater,
        .last_success = counts.lastSuccess ? counts.lastSuccess->secondsSince1970() : 0,
    };
    auto* const bytes = reinterpret_cast<unsigned char*>(statistics);
    std::fill_n(bytes, size, static_cast<unsigned char>(0));
    std::memcpy(bytes, &all, std::min(size, sizeof all));
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_last_failure(char* buffer, size_t capacity, size_t* length) {
  if (!canHold(buffer, capacity)) return ORBIQ_ERROR_ARGUMENT;
  return withAgent([&](const orbiqAgent& agent) {
    return giveOut(agent.statistics().lastFailure, buffer, capacity, length);
  });
}

orbiq_status orbiq_statistics_json(char* buffer, size_t capacity, size_t* length) {
  if (!canHold(buffer, capacity)) return ORBIQ_ERROR_ARGUMENT;
  return withAgent([&](const orbiqAgent& agent) {
    return giveOut(agent.statistics().json(), buffer, capacity, length);
  });
}

orbiq_status orbiq_device_identifier(char* buffer, size_t capacity, size_t* length) {
  return guarded([&]() -> orbiq_status {
    if (!canHold(buffer, capacity)) return ORBIQ_ERROR_ARGUMENT;
    const orbiq::String identifier = orbiqKWDXUUIDHandler::UUID();
    const orbiq_status status = giveOut(identifier, buffer, capacity, length);
    return status == ORBIQ_NONE ? ORBIQ_ERROR_KEYCHAIN : status;
  });
}

orbiq_status orbiq_device_identifier_reset() {
  return guarded([]() -> orbiq_status {
    orbiqKWDXUUIDHandler::reset();
    // The reset itself only logs its failure.
    const orbiq::KeychainMatch left =
        orbiq::Platform::currentKeychain().copyMatching(orbiqCreateKeychainQueryDictionary());
    return left.status == orbiq::errSecItemNotFound ? ORBIQ_OK : ORBIQ_ERROR_KEYCHAIN;
  });
}

orbiq_status orbiq_device_identifier_set_access_group(const char* accessGroup) {
  return guarded([&]() -> orbiq_status {
    orbiqKWDXUUIDHandler::setAccessGroup(accessGroup);
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_main_loop_adopt(int* descriptor) {
  return guarded([&]() -> orbiq_status {
    if (descriptor == nullptr) return ORBIQ_ERROR_ARGUMENT;
    if (orbiqAgent::isForkedAway()) return ORBIQ_ERROR_FORKED;
    *descriptor = orbiq::MainLoop::mainLoop().adopt();
    return *descriptor < 0 ? ORBIQ_ERROR_SYSTEM : ORBIQ_OK;
  });
}

orbiq_status orbiq_main_loop_run_pending() {
  return guarded([]() -> orbiq_status {
    orbiq::MainLoop::mainLoop().runPending();
    return ORBIQ_OK;
  });
}
