#pragma once

/// @file
/// The library for C, and for whatever calls C. Plain C11.
///
///     orbiq_host* host = orbiq_host_new();
///     orbiq_host_set_text(host, ORBIQ_BUNDLE_IDENTIFIER, "tv.example.player");
///     orbiq_host_set_text(host, ORBIQ_AUTHORIZATION_SERVER, "https://auth.example/tag/");
///     orbiq_host_describe(host, NULL, 0);
///     orbiq_host_free(host);
///     orbiq_tagger* tagger = NULL;
///     if (orbiq_tagger_with_serial("ABC", &tagger) == ORBIQ_OK) orbiq_tagger_send_hit(tagger);
///
/// The following holds for all functions unless they say otherwise:
///
/// - They may be called from any thread, and what goes wrong is their return value. Nothing throws.
/// - Texts are UTF-8 and end in a zero byte. What is handed in is copied and may be freed after the
///   call. A null text clears what it sets.
/// - Texts come back in the caller's buffer of `capacity` bytes, always ended by a zero byte if
///   there is room for one. `length`, if not null, is set to the text's bytes without that zero. If
///   they do not fit, the buffer gets as many whole characters as do, and the result is
///   `ORBIQ_ERROR_BUFFER`. A null buffer with capacity 0 asks for the length only, and is
///   `ORBIQ_OK`. Where there is no text the result is `ORBIQ_NONE` and the buffer gets an empty
///   one.
/// - In a process forked (without exec) from one that uses the library, what needs the agent or the
///   device identifier returns `ORBIQ_ERROR_FORKED`.

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "orbiq/services/platform/base/Export.h"

// NOLINTBEGIN(modernize-use-using): this is C.
#ifdef __cplusplus
extern "C" {
#endif

/// How a call ended: errors are below 0.
typedef int32_t orbiq_status;
enum {
  ORBIQ_OK = 0,
  /// There is nothing to return; no error.
  ORBIQ_NONE = 1,
  /// A null handle, a number out of range or a missing buffer. Nothing has changed.
  ORBIQ_ERROR_ARGUMENT = -1,
  /// The description was refused. Nothing has changed.
  ORBIQ_ERROR_REFUSED = -2,
  /// The text does not fit the buffer.
  ORBIQ_ERROR_BUFFER = -3,
  ORBIQ_ERROR_MEMORY = -4,
  /// The keychain could not do it; the log has its status.
  ORBIQ_ERROR_KEYCHAIN = -5,
  ORBIQ_ERROR_FORKED = -6,
  /// The system gave no descriptor or thread; try again later.
  ORBIQ_ERROR_SYSTEM = -7,
  /// The time is over.
  ORBIQ_ERROR_TIMEOUT = -8,
};

/// The status in English, for messages; never null, not to be freed.
ORBIQ_EXPORT const char* orbiq_status_text(orbiq_status status);

/// The library's build identification: "orbiq", a blank and its version. Not to be freed.
ORBIQ_EXPORT const char* orbiq_version(void);

// ---- The host -----------------------------------------------------------------------------------

/// A description of the application and the device. One thread at a time.
typedef struct orbiq_host orbiq_host;

/// Texts of the description. What is left out has the default of the same field of
/// `orbiq::HostDescription`.
typedef int32_t orbiq_host_text;
enum {
  ORBIQ_BUNDLE_IDENTIFIER = 0,
  ORBIQ_BUNDLE_NAME = 1,
  ORBIQ_SHORT_VERSION = 2,
  ORBIQ_AUTHORIZATION_SERVER = 3,
  ORBIQ_LIBRARY_DIRECTORY = 4,
  ORBIQ_CA_BUNDLE = 5,
};

/// Severity of a log line, and the threshold below which lines are not printed.
typedef int32_t orbiq_logging_mode;
enum { ORBIQ_LOG_INFO = 0, ORBIQ_LOG_WARNING = 1, ORBIQ_LOG_ERROR = 2 };

/// Takes one line of the log: `length` bytes of text, with a zero byte behind them, valid during
/// the call, and its time in seconds since 1970 (UTC). Called from any thread, several at once,
/// some of which hold locks of the library: it must return soon, must not call the library and must
/// not wait for a thread that does.
typedef void (*orbiq_log_sink)(void* context, orbiq_logging_mode mode, const char* text,
                               size_t length, double time);

/// Writes the advertising identifier and a zero byte into the buffer and returns true, or returns
/// false if there is none. Called during `orbiq_tagger_send_hit`, on several threads at once.
typedef bool (*orbiq_advertising_identifier)(void* context, char* buffer, size_t capacity);

/// An empty description; null only if memory has run out. The caller frees it.
ORBIQ_EXPORT orbiq_host* orbiq_host_new(void);
/// Null is ignored. What was described stays in force.
ORBIQ_EXPORT void orbiq_host_free(orbiq_host* host);

/// Sets one text of the description; null leaves it to its default.
ORBIQ_EXPORT orbiq_status orbiq_host_set_text(orbiq_host* host, orbiq_host_text which,
                                              const char* text);
/// The main screen: width and height in points, scale, and the native scale or 0 if the device does
/// not tell it. Negative numbers, infinities and NaN are argument errors.
ORBIQ_EXPORT orbiq_status orbiq_host_set_main_screen(orbiq_host* host, double width, double height,
                                                     double scale, double nativeScale);
/// 0 phone, 1 pad, 2 television.
ORBIQ_EXPORT orbiq_status orbiq_host_set_user_interface_idiom(orbiq_host* host, int32_t idiom);
/// True: every save waits for the disk, so that the queue survives a loss of power.
ORBIQ_EXPORT orbiq_status orbiq_host_set_durable(orbiq_host* host, bool durable);
/// True: everything counts as reachable, without a look at the machine's routes. For servers on the
/// same machine or on a closed network; see `orbiq::HostDescription::assumeReachable`.
ORBIQ_EXPORT orbiq_status orbiq_host_set_assume_reachable(orbiq_host* host, bool assume);
/// Takes the log lines instead of standard error; null restores that. The context is handed to each
/// call and must live as long as the process, or until `orbiq_remove_log_sink`.
ORBIQ_EXPORT orbiq_status orbiq_host_set_log_sink(orbiq_host* host, orbiq_log_sink sink,
                                                  void* context);
/// The same for the advertising identifier; null: the device has none.
ORBIQ_EXPORT orbiq_status orbiq_host_set_advertising_identifier(
    orbiq_host* host, orbiq_advertising_identifier identifier, void* context);

/// Puts the description in force. The last accepted one before the first use of a tagger, the
/// statistics, a flush or the device identifier counts; a later one is refused. The buffer, which
/// may be null, gets the reason of a refusal or the status's text, cut if need be, and an empty
/// text on success.
ORBIQ_EXPORT orbiq_status orbiq_host_describe(const orbiq_host* host, char* reason,
                                              size_t capacity);

/// Takes the log sink away for good: later lines go to standard error. Returns when no call of it
/// is in progress, so it must not be called by a sink. To be called before what the sink needs goes
/// away, an interpreter for instance. Where there is none, it keeps the sinks of later descriptions
/// away as well.
ORBIQ_EXPORT orbiq_status orbiq_remove_log_sink(void);

// ---- Taggers ------------------------------------------------------------------------------------

/// Counts audience events for one customer account. The library's own: never to be freed, and valid
/// as long as the process lives.
typedef struct orbiq_tagger orbiq_tagger;

/// Texts of a tagger. This version sends none of them but the serial.
typedef int32_t orbiq_tagger_text;
enum {
  /// Can only be read.
  ORBIQ_SERIAL = 0,
  /// The free texts 1 to 11: `ORBIQ_NEW_LEVEL_1 + 10` is the last.
  ORBIQ_NEW_LEVEL_1 = 1,
  ORBIQ_NEW_LEVEL_11 = 11,
  ORBIQ_MEDIA_CONTENT_ID = 12,
  ORBIQ_MEDIA_DIFF_MODE = 13,
  ORBIQ_MEDIA_CHANNEL = 14,
  ORBIQ_NET_MEASUREMENT = 15,
};

/// Sets `*tagger` to the process's one tagger of that serial, or to null if the call fails. A null
/// or empty serial is an argument error. The first call of all reads the requests file and starts
/// the library's threads; from then on `orbiq_host_describe` is refused.
ORBIQ_EXPORT orbiq_status orbiq_tagger_with_serial(const char* serial, orbiq_tagger** tagger);

/// Counts one event. Returns at once: what becomes of the hit, the statistics tell.
ORBIQ_EXPORT orbiq_status orbiq_tagger_send_hit(orbiq_tagger* tagger);

/// Sets one text of a tagger. Set a tagger's settings from one thread at a time.
ORBIQ_EXPORT orbiq_status orbiq_tagger_set_text(orbiq_tagger* tagger, orbiq_tagger_text which,
                                                const char* text);
/// The text that was set, or the serial.
ORBIQ_EXPORT orbiq_status orbiq_tagger_get_text(const orbiq_tagger* tagger, orbiq_tagger_text which,
                                                char* buffer, size_t capacity, size_t* length);
/// Whether each hit's parameters hold the advertising identifier; true at first. They are saved and
/// logged, and this version sends none of them.
ORBIQ_EXPORT orbiq_status orbiq_tagger_set_use_idfa(orbiq_tagger* tagger, bool use);
/// The setting, in `*use`.
ORBIQ_EXPORT orbiq_status orbiq_tagger_get_use_idfa(const orbiq_tagger* tagger, bool* use);
/// Sets the same threshold as `orbiq_set_logging_mode`.
ORBIQ_EXPORT orbiq_status orbiq_tagger_set_logging_mode(orbiq_tagger* tagger,
                                                        orbiq_logging_mode mode);

// ---- The process --------------------------------------------------------------------------------

/// The threshold of the log, for the whole library: the last call counts. It is `ORBIQ_LOG_ERROR`
/// at first. Any number from 0 on; one above `ORBIQ_LOG_ERROR` silences the three named modes. To
/// be called before the first tagger if the log is to show what goes wrong at the start.
ORBIQ_EXPORT orbiq_status orbiq_set_logging_mode(orbiq_logging_mode mode);

/// To be called when the application comes back to the foreground: the queue is looked at again.
ORBIQ_EXPORT orbiq_status orbiq_post_will_enter_foreground(void);

/// Waits until every hit accepted before the call is settled, that is, no longer pending, and for
/// at most so many seconds: `ORBIQ_ERROR_TIMEOUT` when they are over. Less than 0, or no number, is
/// an argument error. Sends nothing earlier. Never waits, and returns `ORBIQ_ERROR_TIMEOUT`, in a
/// log sink and on the library's own threads. To be called before a process ends soon after its
/// hits.
ORBIQ_EXPORT orbiq_status orbiq_flush(double seconds);

/// What became of every hit since the process began, as in `orbiq::Statistics`: `accepted` is the
/// sum of the eight counts that follow it.
typedef struct orbiq_statistics {
  uint64_t accepted;                      ///< what the library was given
  uint64_t sent;                          ///< answered with status 200
  uint64_t refused;                       ///< refused by their access
  uint64_t answered_with_another_status;  ///< never tried again
  uint64_t given_up;                      ///< invalid, without a URL or lost for want of memory
  uint64_t pushed_out;                    ///< the oldest of a full queue
  uint64_t discarded_at_start;            ///< audience requests of an earlier process
  uint64_t discarded_at_network_return;   ///< audience requests that waited for the network
  uint64_t pending;                       ///< not settled yet
  /// The most additions that ever waited at once for a send to end.
  uint64_t additions_waiting_high_water;
  /// Seconds since 1970 (UTC); 0 before the first success.
  double last_success;
} orbiq_statistics;

/// Fills in the first `size` bytes, so that a caller built with an older or a newer header gets
/// what it knows, and zero for what the library does not: pass `sizeof(orbiq_statistics)`. Makes
/// the agent if there is none yet, as the two that follow do.
ORBIQ_EXPORT orbiq_status orbiq_get_statistics(orbiq_statistics* statistics, size_t size);
/// Why the last hit that failed did, or why all wait; none before the first failure.
ORBIQ_EXPORT orbiq_status orbiq_last_failure(char* buffer, size_t capacity, size_t* length);
/// The same as one JSON object; see `orbiq::Statistics::json`.
ORBIQ_EXPORT orbiq_status orbiq_statistics_json(char* buffer, size_t capacity, size_t* length);

/// The device's identifier: 36 characters, made and kept at the first call. May wait for the disk.
/// Ends the time for `orbiq_host_describe`. These four: one thread at a time.
ORBIQ_EXPORT orbiq_status orbiq_device_identifier(char* buffer, size_t capacity, size_t* length);
/// Stores a new identifier in the place of the one that is kept, and writes it into the buffer. An
/// error of the keychain where none is kept. What this process remembers of an earlier call of
/// `orbiq_device_identifier` stays as it is.
ORBIQ_EXPORT orbiq_status orbiq_device_identifier_replace(char* buffer, size_t capacity,
                                                          size_t* length);
/// Forgets the identifier and deletes it from the keychain; the next one is another.
ORBIQ_EXPORT orbiq_status orbiq_device_identifier_reset(void);
/// The keychain's access group to use; null, the default, for none.
ORBIQ_EXPORT orbiq_status orbiq_device_identifier_set_access_group(const char* accessGroup);

/// Hands the library's loop to the calling thread's own loop, for good, which saves a thread:
/// watch `*descriptor` (level-triggered, for reading), and call `orbiq_main_loop_run_pending` on
/// that thread whenever it is readable. The descriptor stays the library's.
ORBIQ_EXPORT orbiq_status orbiq_main_loop_adopt(int* descriptor);
/// Runs all that is due, without waiting. For the thread that adopted the loop.
ORBIQ_EXPORT orbiq_status orbiq_main_loop_run_pending(void);

#ifdef __cplusplus
}
#endif
// NOLINTEND(modernize-use-using)
