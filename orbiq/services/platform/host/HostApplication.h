#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/keychain/Keychain.h"
#include "orbiq/services/platform/log/SystemLog.h"
#include "orbiq/services/platform/text/String.h"

namespace orbiq {

/// The graphics float: 64 bits on 64-bit processors, 32 bits otherwise.
using GraphicsFloat = std::conditional_t<sizeof(void*) == 8, double, float>;

/// The main screen. Width and height are in points; `nativeScale`, where the device tells it,
/// counts instead of `scale`. A scale that is 0 or less, or no number, is taken as 1.
struct Screen {
  GraphicsFloat width = 0;   ///< in points
  GraphicsFloat height = 0;  ///< in points
  GraphicsFloat scale = 1;   ///< pixels per point, as the system says
  /// Pixels per point, as the device has them.
  std::optional<GraphicsFloat> nativeScale = {};
};

/// What a saved queue survives.
enum class Durability {
  /// The end of the process at any moment; a loss of power may cost the last seconds.
  ProcessEnd,
  /// A loss of power as well: every save waits for the disk.
  PowerLoss,
};

/// What the library knows of the application and the device. Every field may be left out.
struct HostDescription {
  /// Names the state directory. Default: the executable's name. No "/", no leading ".",
  /// 255 bytes at most.
  String bundleIdentifier = {};
  /// Stands in the User-Agent. Default: the executable's name.
  String bundleName = {};
  /// Stands in the User-Agent and, as "v", in the default parameters. Default: none.
  String shortVersion = {};
  /// URL to which the serial is appended: https (http only on loopback), ending in "/", without a
  /// user, a password and a fragment. Default: the environment's ORBIQ_AUTHORIZATION_SERVER.
  String authorizationServer = {};
  /// Absolute path under which "orbiqCache" is made. Default: the environment's
  /// ORBIQ_LIBRARY_DIRECTORY, else `$XDG_STATE_HOME` (or `~/.local/state`)/bundle
  /// identifier/Library.
  String libraryDirectory = {};
  /// 0 phone, 1 pad, 2 television. Absent: the device does not say.
  std::optional<std::intptr_t> userInterfaceIdiom = {};
  /// For `orbiqAgent::screenDiagonal`. Absent: no screen.
  std::optional<Screen> mainScreen = {};
  /// Translates a text of the library; absent, or where it returns null or throws, the text stands
  /// for itself. Called on any thread.
  std::function<String(const String& key)> localize = {};
  /// The advertising identifier, asked for at every hit of a tagger that uses it, on the threads
  /// that call `sendHit`, several at once. An exception counts as none and is logged. Absent: the
  /// device has none.
  std::function<String()> advertisingIdentifier = {};
  /// Takes the log lines; see `LogSink` for what it may not do. Absent: standard error.
  LogSink logSink = {};
  /// File of the certificates to trust. Default: the system's.
  String caBundle = {};
  /// What the saved queue survives. Default: the end of the process.
  Durability durability = Durability::ProcessEnd;
  /// Keeps the device identifier. Absent: files in "orbiqKeychain" in the library directory, 0600
  /// and not encrypted.
  std::shared_ptr<Keychain> keychain = {};
  /// True: the kernel is not asked whether there is a network. Everything counts as reachable, hits
  /// are sent at once, and no change is ever reported. For an application whose servers are on the
  /// same machine or on a closed network without a default route. On a device that may lose its
  /// network, hits are then tried and fail instead of waiting. Counts for the monitors that are
  /// made after the description.
  bool assumeReachable = false;
};

/// The application that the library is linked into.
class ORBIQ_EXPORT HostApplication {
 public:
  /// Describes the application. Returns null, or the reason why the description was refused, which
  /// is logged as well; then nothing has changed. As long as all have been refused, there is no
  /// keychain: a second device identifier could be made in the wrong place. The last accepted call
  /// before the first use of the agent, or of the device identifier, counts; later ones are
  /// refused, and those in a forked child of a process that uses the library. Any thread.
  static String describe(const HostDescription& description);

  /// The description in force, its defaults filled in. Valid as long as the process lives. Any
  /// thread.
  static const HostDescription& current();

  /// Ends the time for descriptions, as the first use of the agent does. Any thread.
  static void settle();
  /// True if descriptions were given and all of them refused: then nobody knows where the
  /// application wanted its identifier to be. Any thread.
  static bool wasOnlyRefused();
  /// Null, or why the authorization server in force must not be asked; `String::outOfMemory()`
  /// where there is no memory to find out. Any thread.
  static String authorizationServerProblem();
};

}  // namespace orbiq
