#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "orbiq/services/platform/base/Export.h"

namespace orbiq {

/// A nullable, shared handle to UTF-8 text.
///
/// Handing a `String` on shares the text; nothing is copied. A handle may be read from several
/// threads at once as long as no `MutableString` changes its text meanwhile.
class ORBIQ_EXPORT String {
 public:
  /// The null text.
  String() noexcept = default;
  /// The null text.
  String(std::nullptr_t) noexcept {}
  /// Takes a copy of the characters; a null pointer gives the null text.
  String(const char* text);
  /// Never null, also for no characters.
  String(std::string text);
  /// Takes a copy of the characters. Never null.
  String(std::string_view text);

  /// A text that stays for the life of the process, for what all requests have in common: handing
  /// it on counts no holders.
  static String lasting(std::string_view text);
  /// "out of memory", which takes none.
  static String outOfMemory() noexcept;

  /// True for the null text alone, not for one of no characters.
  bool isNull() const noexcept { return _text == nullptr; }
  /// True if a `MutableString` may change the text.
  bool isMutable() const noexcept { return _text != nullptr && _text->isMutable; }
  /// True for the null text and for one of no characters.
  bool isEmpty() const noexcept { return view().empty(); }
  /// The text's bytes; empty for the null text. Valid while a handle to the unchanged text lives.
  std::string_view view() const noexcept;
  /// A copy of the text's bytes; empty for the null text.
  std::string toStdString() const { return std::string(view()); }

  /// Length in UTF-16 code units; 0 for the null text.
  std::size_t length() const noexcept;
  /// The first `units` UTF-16 code units, fewer where the cut would split a character.
  String prefix(std::size_t units) const;

  /// A text that later changes of a `MutableString` do not reach; null for the null text.
  String copy() const;

  /// True if both hold the same characters. The null text is equal to nothing, not even to itself.
  bool isEqualToString(const String& other) const noexcept;
  /// True if both are handles to one text, or both are null.
  bool isSameObjectAs(const String& other) const noexcept { return _text == other._text; }
  /// Equal texts have equal hashes; 0 for the null text.
  std::uintptr_t hash() const noexcept;
  /// An address that is the same for all handles to one text; null for the null text.
  const void* identity() const noexcept { return _text.get(); }
  /// A share of the text, which keeps that address taken; null for the null text.
  std::shared_ptr<const void> handle() const noexcept { return _text; }
  /// The text, or "(null)".
  std::string description() const;

  /// Equal characters, or both null.
  friend bool operator==(const String& left, const String& right) noexcept {
    return left.isSameObjectAs(right) || left.isEqualToString(right);
  }

 protected:
  /// What the handles share.
  struct Text {
    std::string value;  ///< the bytes
    bool isMutable;     ///< whether a `MutableString` holds it
  };
  /// A new text.
  String(std::string text, bool isMutable);

  /// Null for the null text.
  std::shared_ptr<Text> _text;
};

/// A text that can be changed after it was handed out: everybody who holds it as a `String` sees
/// the change. Not to be changed while another thread reads it.
class ORBIQ_EXPORT MutableString : public String {
 public:
  /// A new text of these characters.
  explicit MutableString(std::string_view text = {});
  /// Replaces the characters, for every holder.
  void setString(std::string_view text);
  /// Adds to the characters, for every holder.
  void appendString(std::string_view text);
};

}  // namespace orbiq
