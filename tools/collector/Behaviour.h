#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace orbiq::collector {

/// The two kinds of exchange that the collector serves.
enum class Kind { Auth, Hit };

const char* nameOf(Kind kind);

/// How the collector answers. The defaults are those of a server in good health.
struct Behaviour {
  /// The text of the field "access".
  std::string access = "full";
  /// The text of the field "host"; without one, the collector's own hit server.
  std::optional<std::string> host;
  int authStatus = 200;
  int hitStatus = 200;
  /// Between the arrival of a request and its answer.
  std::chrono::milliseconds delay{0};
  /// Which exchanges are taken and not answered: "none", "auth", "hit" or "both".
  std::string stall = "none";
  /// Added to the Date header of an authorization.
  std::chrono::seconds dateSkew{0};
  /// What is wrong with the answer to an authorization: "none"; "missing-field", no session
  /// identifier; "no-date", no Date header; "bad-date", one that is no date; "not-utf8", a body
  /// that is not; "empty", an empty body; "cut", a Content-Length longer than the body, then the
  /// end of the connection.
  std::string malformed = "none";

  bool stalls(Kind kind) const;
};

nlohmann::json toJson(const Behaviour& behaviour);

/// What of a behaviour made an answer of this kind other than a healthy server's: those of its keys
/// that had an effect, with their values.
nlohmann::json applied(const Behaviour& behaviour, Kind kind);

/// The behaviour with the members of an object of changes applied; what it does not name stays.
/// Throws `std::invalid_argument`, whose text names the key and what it takes, for anything that is
/// unknown or out of range.
Behaviour changed(Behaviour behaviour, const nlohmann::json& changes);

}  // namespace orbiq::collector
