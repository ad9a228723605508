#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

#include <algorithm>
#include <string>
#include <utility>

namespace orbiq {
namespace {

using Kind = PlistObject::Kind;

// What operations cost, roughly in bytes of memory, and what each byte of the archive may cost. An
// honest archive stays far below: its objects, each met once, are not much smaller than what they
// become.
constexpr std::size_t kBudgetPerByte = 128;
constexpr std::size_t kCostOfElement = 16;
constexpr std::size_t kCostOfEntry = 96;
constexpr std::size_t kCostOfText = 96;
constexpr std::size_t kCostOfObject = 256;

}  // namespace

std::optional<std::vector<std::shared_ptr<Archivable>>> KeyedUnarchiver::unarchiveArray(
    std::string_view bytes, std::span<const ArchivedClass* const> accepted) {
  const std::optional<BinaryPlistReader> reader = BinaryPlistReader::open(bytes);
  if (!reader) return {};
  KeyedUnarchiver unarchiver(*reader, bytes.size());
  std::optional<Elements> elements = unarchiver.decodeRoot(accepted);
  if (!unarchiver._archive.spend(0)) return {};
  return elements;
}

KeyedUnarchiver::KeyedUnarchiver(const BinaryPlistReader& reader, std::size_t size)
    : _archive(reader, reader.top(), std::min(size, SIZE_MAX / kBudgetPerByte) * kBudgetPerByte) {}

std::optional<KeyedUnarchiver::Elements> KeyedUnarchiver::decodeRoot(
    std::span<const ArchivedClass* const> accepted) {
  const PlistObject& archive = _archive.archive();
  if (!plist().isText(_archive.valueOf(archive, "$archiver"), "NSKeyedArchiver")) return {};
  const PlistObject root =
      _archive.entryOf(_archive.valueOf(_archive.valueOf(archive, "$top"), "root"));
  if (!_archive.isOfClass(root, kArchivedArray.names.first(2))) return {};
  const PlistObject uids = _archive.valueOf(root, "NS.objects");
  if (uids.kind != Kind::kArray || !_archive.spend(uids.count * kCostOfElement)) return {};

  Elements elements;
  elements.reserve(uids.count);
  for (std::size_t i = 0; i < uids.count; ++i) {
    const std::optional<std::uint64_t> uid = plist().uid(plist().element(uids, i));
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
  const std::optional<std::uint64_t> uid = plist().uid(_archive.valueOf(_current, key));
  return uid ? decodeObjectAt(*uid, expected) : nullptr;
}

std::shared_ptr<Archivable> KeyedUnarchiver::decodeObjectAt(std::uint64_t uid,
                                                            const ArchivedClass& expected) {
  if (const auto known = _objects.find(uid); known != _objects.end()) {
    const Decoded& decoded = known->second;
    return decoded.archivedClass->name() == expected.name() ? decoded.object : nullptr;
  }
  const PlistObject dictionary = _archive.entryAt(uid);
  if (!_archive.isOfClass(dictionary, expected.names.first(1))) return nullptr;
  if (!_archive.spend(kCostOfObject)) return nullptr;

  Decoded& decoded = _objects[uid];
  decoded.archivedClass = &expected;
  const PlistObject outer = std::exchange(_current, dictionary);
  decoded.object = expected.decode(*this);
  _current = outer;
  return decoded.object;
}

String KeyedUnarchiver::decodeString(std::string_view key) {
  return textOf(_archive.entryOf(_archive.valueOf(_current, key)));
}

String KeyedUnarchiver::textOf(const PlistObject& object) {
  const PlistObject characters = _archive.charactersOf(object);
  if (!characters.isText()) return {};
  if (const auto known = _texts.find(characters.number); known != _texts.end()) {
    return known->second;
  }
  if (!_archive.spend(kCostOfText + BinaryPlistReader::textBytes(characters))) return {};
  return _texts[characters.number] = String(plist().text(characters));
}

std::optional<Date> KeyedUnarchiver::decodeDate(std::string_view key) {
  const std::optional<double> seconds = _archive.secondsOf(_archive.valueOf(_current, key));
  if (!seconds) return {};
  return Date::sinceReferenceDate(*seconds);
}

SharedParameters KeyedUnarchiver::decodeParameters(std::string_view key) {
  const std::optional<std::uint64_t> uid = plist().uid(_archive.valueOf(_current, key));
  if (!uid) return {};
  if (const auto known = _parameters.find(*uid); known != _parameters.end()) return known->second;
  const PlistObject dictionary = _archive.entryAt(*uid);
  const bool isDictionary = _archive.isOfClass(dictionary, kArchivedDictionary.names.first(2));
  if (!isDictionary || !_archive.spend(kCostOfObject)) return {};
  return _parameters[*uid] = parametersOf(dictionary);
}

SharedParameters KeyedUnarchiver::parametersOf(const PlistObject& dictionary) {
  const PlistObject keys = _archive.valueOf(dictionary, "NS.keys");
  const PlistObject texts = _archive.valueOf(dictionary, "NS.objects");
  if (keys.kind != Kind::kArray || texts.kind != Kind::kArray || keys.count != texts.count) {
    return {};
  }
  std::vector<Parameters::Entry> entries;
  for (std::size_t i = 0; i < keys.count; ++i) {
    const String key = textOf(_archive.entryOf(plist().element(keys, i)));
    if (key.isNull() || !_archive.spend(kCostOfEntry + key.view().size())) return {};
    const String text = textOf(_archive.entryOf(plist().element(texts, i)));
    if (!text.isNull()) entries.push_back({key, text});
  }
  return std::make_shared<const Parameters>(std::move(entries));
}

std::int64_t KeyedUnarchiver::decodeInteger(std::string_view key) {
  return numberOf(key).toInteger();
}

std::uint64_t KeyedUnarchiver::decodeUnsigned(std::string_view key) {
  return numberOf(key).toUnsigned();
}

bool KeyedUnarchiver::decodeBoolean(std::string_view key) { return numberOf(key).toBoolean(); }

PlistNumber KeyedUnarchiver::numberOf(std::string_view key) {
  return plist().number(_archive.valueOf(_current, key)).value_or(PlistNumber());
}

}  // namespace orbiq
