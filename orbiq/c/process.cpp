// What concerns the process as a whole.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include "orbiq/c/Calls.h"
#include "orbiq/orbiqVersion.h"
#include "orbiq/orbiq_c.h"
#include "orbiq/services/orbiqKWDXUUIDHandler/orbiqKWDXUUIDHandler.h"
#include "orbiq/services/orbiqLogger/orbiqLogger.h"
#include "orbiq/services/platform/host/Platform.h"
#include "orbiq/services/platform/loop/MainLoop.h"
#include "orbiq/services/platform/loop/NotificationCenter.h"

using orbiq::c::canHold;
using orbiq::c::giveOut;
using orbiq::c::guarded;
using orbiq::c::unlessForked;
using orbiq::c::withAgent;

namespace {

template <class Obtain>
orbiq_status giveIdentifier(const Obtain& obtain, char* buffer, size_t capacity, size_t* length) {
  if (!canHold(buffer, capacity)) return ORBIQ_ERROR_ARGUMENT;
  return unlessForked([&]() -> orbiq_status {
    const orbiq_status status = giveOut(obtain(), buffer, capacity, length);
    return status == ORBIQ_NONE ? orbiq_status{ORBIQ_ERROR_KEYCHAIN} : status;
  });
}

}  // namespace

const char* orbiq_status_text(orbiq_status status) {
  static constexpr std::pair<orbiq_status, const char*> kTexts[] = {
      {ORBIQ_OK, "done"},
      {ORBIQ_NONE, "there is none"},
      {ORBIQ_ERROR_ARGUMENT, "an argument is null or out of range"},
      {ORBIQ_ERROR_REFUSED, "the description was refused"},
      {ORBIQ_ERROR_BUFFER, "the text does not fit the buffer"},
      {ORBIQ_ERROR_MEMORY, "memory has run out"},
      {ORBIQ_ERROR_KEYCHAIN, "the keychain could not do it"},
      {ORBIQ_ERROR_FORKED, "the library does nothing in a forked process"},
      {ORBIQ_ERROR_SYSTEM, "the system refused a resource"},
      {ORBIQ_ERROR_TIMEOUT, "the time is over"},
  };
  for (const auto& [known, text] : kTexts) {
    if (known == status) return text;
  }
  return "unknown status";
}

const char* orbiq_version() { return orbiq_iOSVersionString; }

orbiq_status orbiq_set_logging_mode(orbiq_logging_mode mode) {
  if (mode < 0) return ORBIQ_ERROR_ARGUMENT;
  orbiqLogger::sharedLogger().setLoggingMode(static_cast<orbiq::LoggingMode>(mode));
  return ORBIQ_OK;
}

orbiq_status orbiq_post_will_enter_foreground() {
  return unlessForked([]() -> orbiq_status {
    orbiq::NotificationCenter::defaultCenter().postNotificationName(
        orbiq::UIApplicationWillEnterForegroundNotification);
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_flush(double seconds) {
  if (!(seconds >= 0)) return ORBIQ_ERROR_ARGUMENT;
  return withAgent([&](orbiqAgent& agent) -> orbiq_status {
    const std::chrono::duration<double> bounded(std::min(seconds, 1e9));
    const auto timeout = std::chrono::ceil<std::chrono::milliseconds>(bounded);
    return agent.flush(timeout) ? ORBIQ_OK : ORBIQ_ERROR_TIMEOUT;
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
    std::memset(statistics, 0, size);
    std::memcpy(statistics, &all, std::min(size, sizeof all));
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
  return giveIdentifier(orbiqKWDXUUIDHandler::UUID, buffer, capacity, length);
}

orbiq_status orbiq_device_identifier_replace(char* buffer, size_t capacity, size_t* length) {
  return giveIdentifier([] { return orbiqKWDXUUIDHandler::storeUUID(true); }, buffer, capacity,
                        length);
}

orbiq_status orbiq_device_identifier_reset() {
  return unlessForked([]() -> orbiq_status {
    orbiqKWDXUUIDHandler::reset();
    // The reset itself only logs its failure.
    orbiq::Keychain* const keychain = orbiq::Platform::currentKeychain();
    const auto query = orbiqCreateKeychainQueryDictionary();
    const bool isGone =
        keychain != nullptr && keychain->copyMatching(query).status == orbiq::errSecItemNotFound;
    return isGone ? ORBIQ_OK : ORBIQ_ERROR_KEYCHAIN;
  });
}

orbiq_status orbiq_device_identifier_set_access_group(const char* accessGroup) {
  return guarded([&]() -> orbiq_status {
    orbiqKWDXUUIDHandler::setAccessGroup(accessGroup);
    return ORBIQ_OK;
  });
}

orbiq_status orbiq_main_loop_adopt(int* descriptor) {
  if (descriptor == nullptr) return ORBIQ_ERROR_ARGUMENT;
  return unlessForked([&]() -> orbiq_status {
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
