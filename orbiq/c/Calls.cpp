#include "orbiq/c/Calls.h"

#include <algorithm>
#include <string_view>

namespace orbiq::c {
namespace {

/// The most bytes, not above `room`, that end no character of UTF-8 halfway.
std::size_t wholeCharacters(std::string_view text, std::size_t room) {
  if (text.size() <= room) return text.size();
  while (room > 0 && (text[room] & 0xC0) == 0x80) --room;  // inside a character
  return room;
}

}  // namespace

bool canHold(const char* buffer, std::size_t capacity) {
  return buffer != nullptr || capacity == 0;
}

orbiq_status giveOut(const String& text, char* buffer, std::size_t capacity, std::size_t* length) {
  const orbiq_status status = giveOut(text.view(), buffer, capacity, length);
  return text.isNull() && status == ORBIQ_OK ? ORBIQ_NONE : status;
}

orbiq_status giveOut(std::string_view characters, char* buffer, std::size_t capacity,
                     std::size_t* length) {
  if (!canHold(buffer, capacity)) return ORBIQ_ERROR_ARGUMENT;
  if (length != nullptr) *length = characters.size();
  if (capacity > 0) {
    const std::size_t count = wholeCharacters(characters, capacity - 1);
    std::copy_n(characters.data(), count, buffer);
    buffer[count] = '\0';
  }
  const bool onlyMeasured = buffer == nullptr;
  return onlyMeasured || characters.size() < capacity ? ORBIQ_OK : ORBIQ_ERROR_BUFFER;
}

}  // namespace orbiq::c
