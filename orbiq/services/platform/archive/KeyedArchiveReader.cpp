#include "orbiq/services/platform/archive/KeyedArchiveReader.h"

#include <algorithm>
#include <array>

namespace orbiq {
namespace {

using Kind = PlistObject::Kind;

constexpr std::array<std::string_view, 2> kStringNames{"NSString", "NSMutableString"};
constexpr std::array<std::string_view, 3> kArrayNames{"NSMutableArray", "NSArray", "NSObject"};
constexpr std::array<std::string_view, 3> kDictionaryNames{"NSMutableDictionary", "NSDictionary",
                                                           "NSObject"};
constexpr std::array<std::string_view, 2> kDateNames{"NSDate", "NSObject"};

constexpr std::size_t kCostOfComparison = 4;

}  // namespace

constinit const ArchivedClass kArchivedArray{kArrayNames, nullptr};
constinit const ArchivedClass kArchivedDictionary{kDictionaryNames, nullptr};
constinit const ArchivedClass kArchivedDate{kDateNames, nullptr};

KeyedArchiveReader::KeyedArchiveReader(const BinaryPlistReader& plist, const PlistObject& archive,
                                       std::size_t budget)
    : _plist(plist), _budget(budget), _archive(archive), _entries(valueOf(archive, "$objects")) {
  if (_entries.kind != Kind::kArray) _entries = {};
}

bool KeyedArchiveReader::spend(std::size_t cost) {
  // The last unit is never spent: none left means that something could not be paid.
  _budget = cost < _budget ? _budget - cost : 0;
  return _budget > 0;
}

PlistObject KeyedArchiveReader::valueOf(const PlistObject& dictionary, std::string_view key) {
  if (dictionary.kind != Kind::kDictionary) return {};
  for (std::size_t i = 0; i < dictionary.count; ++i) {
    if (!spend(kCostOfComparison)) return {};
    if (_plist.isText(_plist.key(dictionary, i), key)) return _plist.value(dictionary, i);
  }
  return {};
}

PlistObject KeyedArchiveReader::entryAt(std::uint64_t uid) const {
  if (uid == 0 || uid >= _entries.count) return {};
  return _plist.element(_entries, static_cast<std::size_t>(uid));
}

PlistObject KeyedArchiveReader::entryOf(const PlistObject& uidValue) const {
  return entryAt(_plist.uid(uidValue).value_or(0));
}

PlistObject KeyedArchiveReader::classNameOf(const PlistObject& entry) {
  return valueOf(entryOf(valueOf(entry, "$class")), "$classname");
}

bool KeyedArchiveReader::isOfClass(const PlistObject& entry,
                                   std::span<const std::string_view> names) {
  const PlistObject name = classNameOf(entry);
  return std::ranges::any_of(
      names, [&](std::string_view expected) { return _plist.isText(name, expected); });
}

PlistObject KeyedArchiveReader::charactersOf(const PlistObject& entry) {
  const bool boxed = entry.kind == Kind::kDictionary && isOfClass(entry, kStringNames);
  const PlistObject characters = boxed ? valueOf(entry, "NS.string") : entry;
  return characters.isText() ? characters : PlistObject();
}

std::optional<double> KeyedArchiveReader::secondsOf(const PlistObject& value) {
  const PlistObject date = value.kind == Kind::kDate ? value : entryOf(value);
  if (date.kind == Kind::kDate) return _plist.date(date);
  if (!isOfClass(date, kArchivedDate.names.first(1))) return {};
  const std::optional<PlistNumber> seconds = _plist.number(valueOf(date, "NS.time"));
  if (!seconds) return {};
  return seconds->toReal();
}

}  // namespace orbiq
