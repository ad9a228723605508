// The description of the host, and its log sink.
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "orbiq/c/Calls.h"
#include "orbiq/orbiq_c.h"
#include "orbiq/services/platform/base/ForkGuard.h"
#include "orbiq/services/platform/host/HostApplication.h"
#include "orbiq/services/platform/log/SystemLog.h"

using orbiq::c::canHold;
using orbiq::c::giveOut;
using orbiq::c::guarded;
using orbiq::c::isIndexOf;

struct orbiq_host {
  orbiq::HostDescription description;
};

namespace {

// What a sink of C's needs may go away before the process ends, so the way to it can be closed.
// Without a lock, which a forked child might find taken.
constinit std::atomic<bool> sinksAreClosed{false};
constinit std::atomic<std::uint32_t> callsInSinks{0};

/// A call's time in a sink, however the sink ends it.
struct StayInSink {
  StayInSink() { ++callsInSinks; }
  ~StayInSink() {
    if (--callsInSinks == 0) callsInSinks.notify_all();
  }
  StayInSink(const StayInSink&) = delete;
  StayInSink& operator=(const StayInSink&) = delete;
};

constexpr orbiq::String orbiq::HostDescription::* kHostTexts[] = {
    &orbiq::HostDescription::bundleIdentifier, &orbiq::HostDescription::bundleName,
    &orbiq::HostDescription::shortVersion,     &orbiq::HostDescription::authorizationServer,
    &orbiq::HostDescription::libraryDirectory, &orbiq::HostDescription::caBundle,
};
static_assert(std::size(kHostTexts) == ORBIQ_CA_BUNDLE + 1);

bool isLength(double number) { return std::isfinite(number) && number >= 0; }

}  // namespace

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

orbiq_status orbiq_host_set_assume_reachable(orbiq_host* host, bool assume) {
  if (host == nullptr) return ORBIQ_ERROR_ARGUMENT;
  host->description.assumeReachable = assume;
  return ORBIQ_OK;
}

orbiq_status orbiq_host_set_log_sink(orbiq_host* host, orbiq_log_sink sink, void* context) {
  return guarded([&]() -> orbiq_status {
    if (host == nullptr) return ORBIQ_ERROR_ARGUMENT;
    host->description.logSink = {};
    if (sink == nullptr) return ORBIQ_OK;
    host->description.logSink = [sink, context](const orbiq::LogLine& line) {
      const std::string text(line.text);  // for the zero byte at its end
      const StayInSink stay;
      if (sinksAreClosed) return;
      sink(context, static_cast<orbiq_logging_mode>(line.mode), text.c_str(), text.size(),
           line.time.secondsSince1970());
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
      giveOut(std::string_view(orbiq_status_text(ORBIQ_ERROR_ARGUMENT)), reason, capacity, nullptr);
      return ORBIQ_ERROR_ARGUMENT;
    }
    giveOut(std::string_view(orbiq_status_text(ORBIQ_ERROR_MEMORY)), reason, capacity, nullptr);
    orbiq::HostDescription description = host->description;
    // A sink that was taken away is so for good.
    if (sinksAreClosed) description.logSink = {};
    const orbiq::String refusal = orbiq::HostApplication::describe(description);
    giveOut(refusal, reason, capacity, nullptr);
    if (refusal.isSameObjectAs(orbiq::String::outOfMemory())) return ORBIQ_ERROR_MEMORY;
    return refusal.isNull() ? ORBIQ_OK : ORBIQ_ERROR_REFUSED;
  });
}

orbiq_status orbiq_remove_log_sink() {
  return guarded([]() -> orbiq_status {
    orbiq::SystemLog::setSink({});
    sinksAreClosed = true;
    if (orbiq::inForkedChild()) return ORBIQ_OK;  // who was inside at the fork is not here
    while (const std::uint32_t inside = callsInSinks) callsInSinks.wait(inside);
    return ORBIQ_OK;
  });
}
