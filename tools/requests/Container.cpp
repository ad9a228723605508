#include "tools/requests/Container.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "tools/requests/SlotLayout.h"

namespace orbiq::requests {
namespace {

constexpr std::size_t kMostObjects = 1'000'000;

/// Objects that stand one behind the other from the start of the file on.
FoundObjects sequenceOf(std::string_view bytes, std::size_t refSize) {
  const BinaryPlistReader reader = BinaryPlistReader::withoutFrame(bytes, refSize);
  FoundObjects sequence{.offsets = {}, .end = kPlistMagic.size(), .refSize = refSize};
  while (sequence.end < bytes.size() && sequence.offsets.size() < kMostObjects) {
    const PlistObject object = reader.objectAt(sequence.end);
    if (object.kind == PlistObject::Kind::kNone) break;
    sequence.offsets.push_back(sequence.end);
    sequence.end = reader.endOf(object);
  }
  return sequence;
}

void appendBigEndian(std::string& bytes, std::uint64_t number, std::size_t size) {
  while (size-- > 0) bytes += static_cast<char>(number >> (8 * size));
}

/// Which size the references have is told by how far it leads.
FoundObjects longestSequenceOf(std::string_view bytes) {
  FoundObjects longest;
  for (const std::size_t refSize : {1U, 2U, 4U, 8U}) {
    FoundObjects sequence = sequenceOf(bytes, refSize);
    if (sequence.end > longest.end) longest = std::move(sequence);
  }
  return longest;
}

/// The objects with an offset table and a trailer of their own.
std::string framed(std::string_view bytes, const FoundObjects& objects) {
  std::string whole(bytes.substr(0, objects.end));
  for (const std::size_t offset : objects.offsets) appendBigEndian(whole, offset, 8);
  whole.append(6, '\0');
  appendBigEndian(whole, 8, 1);
  appendBigEndian(whole, objects.refSize, 1);
  appendBigEndian(whole, objects.offsets.size(), 8);
  appendBigEndian(whole, 0, 8);
  appendBigEndian(whole, objects.end, 8);
  return whole;
}

}  // namespace

Container::Container(std::string bytes, Faults& faults) : _bytes(std::move(bytes)) {
  PlistDamage damage;
  _reader = BinaryPlistReader::open(_bytes, &damage);
  if (_reader) return;
  faults.add({damage.offset, {}, damage.expected});
  if (_bytes.size() < kPlistMagic.size()) return;
  if (!_bytes.starts_with(kPlistMagic)) {
    // Not a property list at all, unless the rest is one.
    std::ranges::copy(kPlistMagic, _bytes.begin());
    _reader = BinaryPlistReader::open(_bytes);
    return;
  }
  std::optional<FoundObjects> inSlots = objectsInSlots(_bytes);
  const FoundObjects objects = inSlots ? *std::move(inSlots) : longestSequenceOf(_bytes);
  if (objects.offsets.empty()) return;
  _bytes = framed(_bytes, objects);
  _reader = BinaryPlistReader::open(_bytes);
  _isRebuilt = true;
  _end = objects.end;
}

PlistObject Container::archive() const {
  const auto isArchive = [this](const PlistObject& object) {
    if (object.kind != PlistObject::Kind::kDictionary) return false;
    // The dictionary of an archive has four keys.
    for (std::size_t i = 0; i < std::min<std::size_t>(object.count, 16); ++i) {
      if (_reader->isText(_reader->key(object, i), "$objects")) return true;
    }
    return false;
  };
  const PlistObject top = _reader->top();
  if (!_isRebuilt && isArchive(top)) return top;
  for (std::uint64_t number = 0; number < _reader->objectCount(); ++number) {
    const PlistObject object = _reader->object(number);
    if (isArchive(object)) return object;
  }
  return top;
}

std::vector<std::uint64_t> Container::textsBeyondAscii(std::size_t most) const {
  constexpr unsigned kAsciiMarker = 0x5;
  std::vector<std::uint64_t> found;
  // Texts that do not overlap have no more than the bytes of the file.
  std::size_t bytesLeft = _bytes.size();
  for (std::uint64_t number = 0; number < _reader->objectCount(); ++number) {
    const PlistObject object = _reader->object(number);
    if (object.kind != PlistObject::Kind::kText) continue;
    if (object.count > bytesLeft || found.size() == most) break;
    bytesLeft -= object.count;
    const auto marker =
        static_cast<unsigned char>(_bytes[static_cast<std::size_t>(_reader->offsetOf(number))]);
    const std::string_view text = std::string_view(_bytes).substr(object.start, object.count);
    const auto isBeyond = [](char byte) { return static_cast<unsigned char>(byte) > 0x7F; };
    if (marker >> 4 == kAsciiMarker && std::ranges::any_of(text, isBeyond)) found.push_back(number);
  }
  return found;
}

void Container::check(std::uint64_t uidCount, Faults& faults) const {
  if (_isRebuilt) return;
  // Objects that do not overlap cannot refer to more than the file has bytes.
  std::size_t referencesLeft = _bytes.size();
  for (std::uint64_t number = 0; number < _reader->objectCount(); ++number) {
    const PlistObject object = _reader->object(number);
    const auto offset = static_cast<std::size_t>(_reader->offsetOf(number));
    if (object.kind == PlistObject::Kind::kNone) {
      faults.add({object.damage.offset, number, object.damage.expected});
    } else if (uidCount > 0 && _reader->uid(object).value_or(0) >= uidCount) {
      faults.add({offset, number, "a UID below " + std::to_string(uidCount)});
    }
    const std::size_t count = BinaryPlistReader::referenceCount(object);
    if (count > referencesLeft) {
      faults.add({offset, number, "objects that do not overlap"});
      return;
    }
    referencesLeft -= count;
    for (std::size_t i = 0; i < count; ++i) {
      const PlistObject referred = _reader->referred(object, i);
      if (referred.number >= _reader->objectCount()) {
        faults.add({referred.damage.offset, number, referred.damage.expected});
      }
    }
  }
}

}  // namespace orbiq::requests
