#include "orbiq/services/platform/KeyedUnarchiver.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace orbiq {
namespace {

using Kind = PlistObject::Kind;

constexpr std::array<std::string_view, 2> kArrayNames{"NSArray", "NSMutableArray"};
constexpr std::array<std::string_view, 2> kDictionaryNames{"NSDictionary", "NSMutableDictionary"};
constexpr std::array<std::string_view, 1> kDateNames{"NSDate"};
constexpr std::array<std::string_view, 2> kStringNames{"NSString", "NSMutableString"};

// What operations cost, roughly in bytes of memory, and what each byte of the archive may cost. An
// honest archive stays far below: its objects, each met once, are not much smaller than what they
// become.
constexpr std::size_t kBudgetPerByte = 128;
constexpr std::size_t kCostOfComparison = 4;
constexpr std::size_t kCostOfElement = 16;
constexpr std::size_t kCostOfEntry = 96;
constexpr std::size_t kCostOfText = 96;
constexpr std::size_t kCostOfObject = 256;

/// Deeper than any record nests; it only protects the stack, should a class nest in itself.
constexpr unsigned kMaximumDepth = 64;

}  // namespace

std::optional<std::vector<std::shared_ptr<Archivable>>> KeyedUnarchiver::unarchiveArray(
    std::string_view bytes, std::span<const ArchivedClass* const> accepted) {
  const std::optional<BinaryPlistReader> reader = BinaryPlistReader::open(bytes);
  if (!reader) return {};
  KeyedUnarchiver unarchiver(*reader, bytes.size());
  std::optional<Elements> elements = unarchiver.decodeRoot(accepted);
  if (!unarchiver.spend(0)) return {};
  return elements;
}

KeyedUnarchiver::KeyedUnarchiver(const BinaryPlistReader& reader, std::size_t size)
    : _reader(reader), _budget(std::min(size, SIZE_MAX / kBudgetPerByte) * kBudgetPerByte) {}

bool KeyedUnarchiver::spend(std::size_t cost) {
  // The last unit is never spent: none left means that something could not be paid.
  _budget = cost < _budget ? _budget - cost : 0;
  return _budget > 0;
}

std::optional<KeyedUnarchiver::Elements> KeyedUnarchiver::decodeRoot(
    std::span<const ArchivedClass* const> accepted) {
  const PlistObject archive = _reader.top();
  if (!_reader.isText(valueOf(archive, "$archiver"), "NSKeyedArchiver")) return {};
  _entries = valueOf(archive, "$objects");
  if (_entries.kind != Kind::kArray) return {};
  const PlistObject root = entryOf(valueOf(valueOf(archive, "$top"), "root"));
  if (!isOfClass(root, kArrayNames)) return {};
  const PlistObject uids = valueOf(root, "NS.objects");
  if (uids.kind != Kind::kArray || !spend(uids.count * kCostOfElement)) return {};

  Elements elements;
  elements.reserve(uids.count);
  for (std::size_t i = 0; i < uids.count; ++i) {
    const std::optional<std::uint64_t> uid = _reader.uid(_reader.element(uids, i));
    if (!uid) return {};
    std::shared_ptr<Archivable> object;
    for (const ArchivedClass* candidate : accepted) {
      object = decodeObjectAt(*uid, *candidate);
      if (object) break;
    }
    if (!object) return {};
    elements.push_back(std::move(object));
  }
  return elements;
}

std::shared_ptr<Archivable> KeyedUnarchiver::decodeObject(std::string_view key,
                                                          const ArchivedClass& expected) {
  const std::optional<std::uint64_t> uid = _reader.uid(valueOf(_current, key));
  return uid ? decodeObjectAt(*uid, expected) : nullptr;
}

std::shared_ptr<Archivable> KeyedUnarchiver::decodeObjectAt(std::uint64_t uid,
                                                            const ArchivedClass& expected) {
  if (const auto known = _objects.find(uid); known != _objects.end()) {
    const Decoded& decoded = known->second;
    return decoded.archivedClass->name() == expected.name() ? decoded.object : nullptr;
  }
  const PlistObject dictionary = entryAt(uid);
  if (!isOfClass(dictionary, expected.names.first(1))) return nullptr;
  if (_depth == kMaximumDepth || !spend(kCostOfObject)) return nullptr;

  Decoded& decoded = _objects[uid];
  decoded.archivedClass = &expected;
  const PlistObject outer = std::exchange(_current, dictionary);
  ++_depth;
  decoded.object = expected.decode(*this);
  --_depth;
  _current = outer;
  return decoded.object;
}

String KeyedUnarchiver::decodeString(std::string_view key) {
  return textOf(entryOf(valueOf(_current, key)));
}

String KeyedUnarchiver::textOf(const PlistObject& object) {
  const bool boxed = object.kind == Kind::kDictionary && isOfClass(object, kStringNames);
  const PlistObject characters = boxed ? valueOf(object, "NS.string") : object;
  if (!characters.isText()) return {};
  if (const auto known = _texts.find(characters.number); known != _texts.end()) {
    return known->second;
  }
  if (!spend(kCostOfText + BinaryPlistReader::textBytes(characters))) return {};
  return _texts[characters.number] = String(_reader.text(characters));
}

std::optional<Date> KeyedUnarchiver::decodeDate(std::string_view key) {
  const PlistObject date = entryOf(valueOf(_current, key));
  if (!isOfClass(date, kDateNames)) return {};
  const std::optional<PlistNumber> seconds = _reader.number(valueOf(date, "NS.time"));
  if (!seconds) return {};
  return Date::sinceReferenceDate(seconds->toReal());
}

SharedParameters KeyedUnarchiver::decodeParameters(std::string_view key) {
  const std::optional<std::uint64_t> uid = _reader.uid(valueOf(_current, key));
  if (!uid) return {};
  if (const auto known = _parameters.find(*uid); known != _parameters.end()) return known->second;
  const PlistObject dictionary = entryAt(*uid);
  if (!isOfClass(dictionary, kDictionaryNames) || !spend(kCostOfObject)) return {};
  return _parameters[*uid] = parametersOf(dictionary);
}

SharedParameters KeyedUnarchiver::parametersOf(const PlistObject& dictionary) {
  const PlistObject keys = valueOf(dictionary, "NS.keys");
  const PlistObject texts = valueOf(dictionary, "NS.objects");
  if (keys.kind != Kind::kArray || texts.kind != Kind::kArray || keys.count != texts.count) {
    return {};
  }
  auto parameters = std::make_shared<Parameters>();
  for (std::size_t i = 0; i < keys.count; ++i) {
    const String key = textOf(entryOf(_reader.element(keys, i)));
    if (key.isNull() || !spend(kCostOfEntry + key.view().size())) return {};
    const String text = textOf(entryOf(_reader.element(texts, i)));
    if (!text.isNull()) parameters->emplace(key.view(), text);
  }
  return parameters;
}

std::int64_t KeyedUnarchiver::decodeInteger(std::string_view key) {
  const std::optional<PlistNumber> number = numberOf(key);
  return number ? number->toInteger() : 0;
}

std::uint64_t KeyedUnarchiver::decodeUnsigned(std::string_view key) {
  const std::optional<PlistNumber> number = numberOf(key);
  return number ? number->toUnsigned() : 0;
}

bool KeyedUnarchiver::decodeBoolean(std::string_view key) {
  const std::optional<PlistNumber> number = numberOf(key);
  return number && number->toBoolean();
}

std::optional<PlistNumber> KeyedUnarchiver::numberOf(std::string_view key) {
  return _reader.number(valueOf(_current, key));
}

PlistObject KeyedUnarchiver::valueOf(const PlistObject& dictionary, std::string_view key) {
  if (dictionary.kind != Kind::kDictionary) return {};
  for (std::size_t i = 0; i < dictionary.count; ++i) {
    if (!spend(kCostOfComparison)) return {};
    if (_reader.isText(_reader.key(dictionary, i), key)) return _reader.value(dictionary, i);
  }
  return {};
}

PlistObject KeyedUnarchiver::entryAt(std::uint64_t uid) const {
  if (uid == 0 || uid >= _entries.count) return {};
  return _reader.element(_entries, static_cast<std::size_t>(uid));
}

PlistObject KeyedUnarchiver::entryOf(const PlistObject& uidValue) const {
  return entryAt(_reader.uid(uidValue).value_or(0));
}

bool KeyedUnarchiver::isOfClass(const PlistObject& object,
                                std::span<const std::string_view> names) {
  const PlistObject name = valueOf(entryOf(valueOf(object, "$class")), "$classname");
  return std::ranges::any_of(
      names, [&](std::string_view expected) { return _reader.isText(name, expected); });
}

}  // namespace orbiq
