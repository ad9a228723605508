#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace orbiq {

/// An object's number in a binary property list.
using PlistRef = std::uint32_t;

/// Encodes objects of a binary property list, each behind the last one.
class PlistObjects {
 public:
  /// References and UIDs of two or four bytes.
  explicit PlistObjects(std::size_t refSize) : _refSize(refSize) {}

  const std::string& bytes() const { return _bytes; }
  void clear() { _bytes.clear(); }

  void addBoolean(bool value);
  void addInteger(std::int64_t number);
  void addReal(double number);
  /// UTF-8; each malformed byte becomes U+FFFD.
  void addText(std::string_view text);
  void addUid(std::uint32_t uid);
  void addArray(std::span<const PlistRef> elements);
  void addDictionary(std::span<const PlistRef> keys, std::span<const PlistRef> values);
  /// The head of an array, in its longest form; the elements are to follow.
  void addArrayHead(std::size_t count);

 private:
  void addNumber(std::uint64_t number, std::size_t size);
  void addHead(unsigned kind, std::size_t count);
  void addRefs(std::span<const PlistRef> refs);

  std::string _bytes;
  std::size_t _refSize;
};

}  // namespace orbiq
