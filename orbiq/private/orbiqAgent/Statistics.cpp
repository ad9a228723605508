#include "orbiq/private/orbiqAgent/Statistics.h"

#include <cmath>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {
namespace {

std::string quoted(std::string_view text) {
  std::string json = "\"";
  while (!text.empty()) {
    const Utf8Character character = decodeUtf8(text);
    const char32_t code = character.codePoint;
    if (isControl(code)) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(code));
      json += escape;
    } else {
      if (code == '"' || code == '\\') json += '\\';
      appendUtf8(json, code);
    }
    text.remove_prefix(character.byteCount);
  }
  return json + '"';
}

}  // namespace

String Statistics::json() const {
  std::string json = "{";
  for (const auto& [name, count] : {
           std::pair("accepted", accepted),
           std::pair("sent", sent),
           std::pair("refused", refused),
           std::pair("answeredWithAnotherStatus", answeredWithAnotherStatus),
           std::pair("givenUp", givenUp),
           std::pair("pushedOut", pushedOut),
           std::pair("discardedAtStart", discardedAtStart),
           std::pair("discardedAtNetworkReturn", discardedAtNetworkReturn),
           std::pair("pending", pending),
           std::pair("additionsWaitingHighWater", additionsWaitingHighWater),
       }) {
    json += quoted(name) + ":" + std::to_string(count) + ",";
  }
  // Whole milliseconds: a host may have set a locale with another decimal point.
  json += "\"lastSuccessMilliseconds\":";
  json +=
      lastSuccess ? std::to_string(std::llround(lastSuccess->secondsSince1970() * 1000)) : "null";
  json += ",\"lastFailure\":";
  json += lastFailure.isNull() ? "null" : quoted(lastFailure.view());
  return json + "}";
}

}  // namespace orbiq
