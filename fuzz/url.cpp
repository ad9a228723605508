// Any text as a URL: it is refused, or kept as it is and in one piece.
#include "orbiq/services/platform/text/Url.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "orbiq/private/orbiqRequest/orbiqRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (const auto url = orbiq::Url::fromText(text)) {
    if (url->text() != text) std::abort();
    const std::string scheme(url->scheme());
    if (!scheme.empty() && url->text().size() <= scheme.size()) std::abort();
    if (std::string(url->host()).find_first_of("/?# \r\n") != std::string::npos) std::abort();
  }
  // What was escaped is a URL's text, whatever it was before.
  const auto escaped = orbiq::percentEscaped(text);
  if (!escaped.isEmpty() && !orbiq::Url::fromText(escaped)) std::abort();
  return 0;
}
