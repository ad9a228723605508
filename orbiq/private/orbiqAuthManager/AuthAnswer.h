#pragma once

#include <map>
#include <string>
#include <string_view>

namespace orbiq {

/// The fields of an authorization answer, by key.
using AuthFields = std::map<std::string, std::string, std::less<>>;

/// Reads "key=value|key=value". A piece without "=" is ignored; a value ends at a second "=" and
/// loses its double quotes; of a repeated key the last one counts; nothing is trimmed. A body that
/// is not UTF-8 has no fields.
AuthFields parseAuthAnswer(std::string_view body);

}  // namespace orbiq
