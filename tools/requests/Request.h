#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orbiq::requests {

struct Access {
  std::optional<std::int64_t> mode;
  std::optional<std::string> serial;
  std::optional<std::string> host;
  std::optional<std::string> baseUrl;
  bool firstHitSent = false;

  /// Stands for an answer that the authorization server did not give.
  bool isFallback() const { return !baseUrl || baseUrl->empty(); }
};

struct Session {
  std::optional<std::string> serial;
  std::optional<std::string> identifier;
};

struct Tagger {
  std::optional<std::string> serial;
  std::optional<std::int64_t> partialId;
  bool isStream = false;
};

/// A parameter's value that is no text is described.
struct Parameter {
  std::string key;
  std::string value;
  bool isText = true;
};

/// One element of the queue, as far as it can be read.
struct Request {
  enum class Kind { kAudience, kStreaming, kMarker, kUnknown };

  Kind kind = Kind::kUnknown;
  std::string className;
  std::optional<std::uint64_t> uid;
  std::optional<std::string> serial;
  std::optional<std::uint64_t> sendingMode;
  std::optional<std::int64_t> status;
  std::uint64_t numberOfFails = 0;
  bool renewsSession = false;
  std::optional<double> createdAt;  ///< seconds since 1970, as the next
  std::optional<double> lastFailAt;
  std::optional<std::vector<Parameter>> parameters;
  std::optional<Tagger> tagger;
  bool hasAuthorization = false;
  std::optional<Access> access;
  std::optional<Session> session;

  /// The text that the request is sent to; none without an access.
  std::optional<std::string> target() const;
};

}  // namespace orbiq::requests
