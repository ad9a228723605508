#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/text/String.h"

namespace orbiq {

/// A text that is a URL reference by RFC 3986, absolute or relative.
class ORBIQ_EXPORT Url {
 public:
  /// No value for a null or empty text and for one that the grammar refuses. Nothing is guessed,
  /// added or escaped.
  static std::optional<Url> fromText(const String& text);

  /// The whole text, as it was given.
  const std::string& text() const { return _text; }
  /// The text without a user's name and password: what may be shown and asked for.
  std::string textWithoutUser() const;
  /// In lower case; empty for a relative reference.
  const std::string& scheme() const { return _scheme; }
  /// The host as it stands (an IPv6 address without its brackets); empty if there is none.
  const std::string& host() const { return _host; }
  /// Whether the scheme is http or https.
  bool isHttp() const { return _scheme == "http" || _scheme == "https"; }

 private:
  Url() = default;
  std::string _text;
  std::string _scheme;
  std::string _host;
  /// Where name and password stand in the text, with the "@" behind them.
  std::size_t _userBegin = 0;
  std::size_t _userLength = 0;
};

/// Percent-escapes every byte of the UTF-8 text but ASCII letters, digits, "-", ".", "_" and "~".
/// Null gives null.
ORBIQ_EXPORT String percentEscaped(const String& text);

}  // namespace orbiq
