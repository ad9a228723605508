#include "orbiq/services/platform/text/String.h"

#include <functional>
#include <utility>

#include "orbiq/services/platform/base/NeverDestroyed.h"
#include "orbiq/services/platform/text/Utf8.h"

namespace orbiq {

String::String(std::string text, bool isMutable)
    : _text(std::make_shared<Text>(Text{std::move(text), isMutable})) {}

String::String(const char* text) {
  if (text != nullptr) *this = String(std::string(text), false);
}

String::String(std::string text) : String(std::move(text), false) {}

String::String(std::string_view text) : String(std::string(text), false) {}

String String::lasting(std::string_view text) {
  String lasting;
  lasting._text = {std::shared_ptr<Text>(), new Text{std::string(text), false}};
  return lasting;
}

String String::outOfMemory() noexcept {
  // So short that it stands in the text itself.
  static NeverDestroyed<Text> text(Text{"out of memory", false});
  String result;
  result._text = {std::shared_ptr<Text>(), &*text};
  return result;
}

std::string_view String::view() const noexcept {
  return _text ? std::string_view(_text->value) : std::string_view();
}

std::size_t String::length() const noexcept { return utf16Length(view()); }

String String::prefix(std::size_t units) const {
  if (isNull()) return {};
  return view().substr(0, utf8PrefixBytes(view(), units));
}

String String::copy() const {
  // A text that nobody can change is as good as a private one.
  if (isNull() || !_text->isMutable) return *this;
  return view();
}

bool String::isEqualToString(const String& other) const noexcept {
  return _text && other._text && _text->value == other._text->value;
}

std::uintptr_t String::hash() const noexcept {
  return _text ? std::hash<std::string_view>()(_text->value) : 0;
}

std::string String::description() const { return isNull() ? "(null)" : _text->value; }

MutableString::MutableString(std::string_view text) : String(std::string(text), true) {}

// It may hold no text, having been moved away, or one that others made, assigned through a
// `String`.
void MutableString::setString(std::string_view text) {
  if (!isMutable()) *this = MutableString();
  _text->value = text;
}

void MutableString::appendString(std::string_view text) {
  if (!isMutable()) *this = MutableString(view());
  _text->value += text;
}

}  // namespace orbiq
