#include "orbiq/services/platform/archive/ExtendablePlist.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "orbiq/services/platform/archive/BigEndian.h"

namespace orbiq {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kBlockSize = 4096;
constexpr std::size_t kTrailerSize = 32;

void prependTo(FrontVector<std::uint32_t>& positions, std::span<const std::uint32_t> added,
               std::uint32_t shift) {
  const std::span<std::uint32_t> room = positions.prepend(added.size());
  std::transform(added.begin(), added.end(), room.begin(),
                 [shift](std::uint32_t position) { return position + shift; });
}

}  // namespace

ExtendablePlist::Extent ExtendablePlist::Extent::of(const PlistObjects& objects) {
  return {static_cast<std::uint32_t>(objects.bytes().size()),
          static_cast<std::uint32_t>(objects.offsets().size()),
          static_cast<std::uint32_t>(objects.ownRefs().size()),
          static_cast<std::uint32_t>(objects.foreignRefs().size()),
          static_cast<std::uint32_t>(objects.uidNumbers().size())};
}

ExtendablePlist::Extent& ExtendablePlist::Extent::operator+=(const Extent& more) {
  bytes += more.bytes;
  objects += more.objects;
  ownRefs += more.ownRefs;
  foreignRefs += more.foreignRefs;
  uids += more.uids;
  return *this;
}

ExtendablePlist::Extent ExtendablePlist::Extent::operator-(const Extent& part) const {
  return {bytes - part.bytes, objects - part.objects, ownRefs - part.ownRefs,
          foreignRefs - part.foreignRefs, uids - part.uids};
}

void ExtendablePlist::begin(const PlistObjects& frame) {
  _frame = &frame;
  _frameObjects = static_cast<PlistRef>(frame.offsets().size());
  _bytesEnd = _bytesBegin;
  _places.clear();
  _ownRefs.clear();
  _foreignRefs.clear();
  _uidNumbers.clear();
}

void ExtendablePlist::dropBack(const Extent& dropped) {
  _bytesEnd -= dropped.bytes;
  _places.dropBack(dropped.objects);
  _ownRefs.dropBack(dropped.ownRefs);
  _foreignRefs.dropBack(dropped.foreignRefs);
  _uidNumbers.dropBack(dropped.uids);
}

void ExtendablePlist::replaceFront(const Extent& dropped, std::span<const PlistRef> successors,
                                   const PlistObjects& block) {
  _bytesBegin += dropped.bytes;
  _firstPosition += dropped.bytes;
  _firstHandle += dropped.objects;
  _places.dropFront(dropped.objects);
  _ownRefs.dropFront(dropped.ownRefs);
  _foreignRefs.dropFront(dropped.foreignRefs);
  _uidNumbers.dropFront(dropped.uids);
  renumber(dropped, successors, block);
  prepend(block);
}

void ExtendablePlist::renumber(const Extent& dropped, std::span<const PlistRef> successors,
                               const PlistObjects& block) {
  const PlistRef first = _frameObjects;
  const auto shift = static_cast<std::uint32_t>(block.offsets().size() - dropped.objects);
  // What is to be added to a number; the last one holds for all that were not dropped.
  _shifts.resize(dropped.objects + 1);
  for (std::uint32_t i = 0; i < dropped.objects; ++i) _shifts[i] = successors[i] - (first + i);
  _shifts.back() = shift;
  const auto changeAll = [bytes = begin(), firstPosition = _firstPosition](
                             const FrontVector<std::uint32_t>& positions, auto&& changed) {
#pragma GCC unroll 4
    for (const std::uint32_t position : std::span(positions.begin(), positions.end())) {
      char* const place = bytes + std::uint32_t{position - firstPosition};
      std::uint16_t stored = 0;
      std::memcpy(&stored, place, sizeof stored);
      stored = bigEndian16(static_cast<std::uint16_t>(changed(bigEndian16(stored))));
      std::memcpy(place, &stored, sizeof stored);
    }
  };
  changeAll(_ownRefs, [shift](std::uint32_t ref) { return ref + shift; });
  changeAll(_foreignRefs,
            [first, count = dropped.objects, shifts = _shifts.data()](std::uint32_t ref) {
              return ref + shifts[std::min(ref - first, count)];
            });
  auto uid = static_cast<std::uint32_t>(_frame->uidNumbers().size() + block.uidNumbers().size());
  changeAll(_uidNumbers, [&uid](std::uint32_t) { return uid++; });
  const auto moved = static_cast<std::uint32_t>(block.bytes().size() - dropped.bytes);
  for (std::uint32_t& place : std::span(_places.begin(), _places.end())) place += moved;
}

void ExtendablePlist::prepend(const PlistObjects& block) {
  const std::string_view bytes = block.bytes();
  if (bytes.size() > UINT32_MAX) throw std::length_error("the list is too long");
  const std::size_t frameSize = kMagic.size() + _frame->bytes().size();
  makeRoom(bytes.size() + frameSize, 0);
  _bytesBegin -= bytes.size();
  bytes.copy(begin(), bytes.size());
  _firstPosition -= static_cast<std::uint32_t>(bytes.size());
  _firstHandle -= static_cast<std::uint32_t>(block.offsets().size());
  const std::span<std::uint32_t> places = _places.prepend(block.offsets().size());
  std::transform(
      block.offsets().begin(), block.offsets().end(), places.begin(),
      [frameSize](std::uint32_t offset) { return static_cast<std::uint32_t>(frameSize + offset); });
  prependTo(_ownRefs, block.ownRefs(), _firstPosition);
  prependTo(_foreignRefs, block.foreignRefs(), _firstPosition);
  prependTo(_uidNumbers, block.uidNumbers(), _firstPosition);
}

/// Around the blocks. Seldom does something, since it makes more room than it must.
void ExtendablePlist::makeRoom(std::size_t before, std::size_t behind) {
  if (before <= _bytesBegin && behind <= _bytes.size() - _bytesEnd) return;
  const std::size_t kept = _bytesEnd - _bytesBegin;
  // What comes behind the blocks is a good half of them.
  behind = std::max(behind, kept / 2) + kBlockSize;
  const std::size_t needed = before + kept + behind;
  PageArray<char> fresh;
  if (needed + needed / 8 > _bytes.size()) fresh = PageArray<char>(needed + needed / 4);
  const PageArray<char>& target = fresh.size() != 0 ? fresh : _bytes;
  char* const to = target.get() + (target.size() - behind - kept);
  if (kept != 0) std::memmove(to, begin(), kept);
  if (fresh.size() != 0) _bytes = std::move(fresh);
  _bytesEnd = _bytes.size() - behind;
  _bytesBegin = _bytesEnd - kept;
}

bool ExtendablePlist::fits(std::size_t objectCount, PlistRefSize refSize) {
  // Readers want the count itself to fit, not only the highest number.
  return objectCount <= (refSize == PlistRefSize::kTwo ? UINT16_MAX : UINT32_MAX);
}

std::string_view ExtendablePlist::finish(const PlistObjects& ending, PlistRef top) {
  const std::string_view frame = _frame->bytes();
  const std::string_view last = ending.bytes();
  const std::size_t front = kMagic.size() + frame.size();
  const std::size_t endingAt = front + (_bytesEnd - _bytesBegin);
  const std::size_t objectsEnd = endingAt + last.size();
  if (objectsEnd > UINT32_MAX) throw std::length_error("the list is too long");
  const std::size_t offsetSize = objectsEnd <= UINT16_MAX - kBlockSize ? 2 : 4;
  const std::size_t objectCount = endRef() + ending.offsets().size();
  const std::size_t tableSize = offsetSize * objectCount;
  const std::size_t unpadded = objectsEnd + tableSize + kTrailerSize;
  const std::size_t padding = (kBlockSize - unpadded % kBlockSize) % kBlockSize;
  makeRoom(front, last.size() + padding + tableSize + kTrailerSize);

  char* const list = begin() - front;
  frame.copy(list + kMagic.copy(list, kMagic.size()), frame.size());
  char* place = list + endingAt;
  place += last.copy(place, last.size());
  std::memset(place, 0, padding);
  place = putOffsets(place + padding, offsetSize, ending, endingAt);
  place = storeBigEndian<8>(place, offsetSize << 8 | static_cast<std::uint64_t>(ending.refSize()));
  place = storeBigEndian<8>(place, objectCount);
  place = storeBigEndian<8>(place, top);
  place = storeBigEndian<8>(place, objectsEnd + padding);
  return {list, static_cast<std::size_t>(place - list)};
}

char* ExtendablePlist::putOffsets(char* place, std::size_t offsetSize, const PlistObjects& ending,
                                  std::size_t endingAt) {
  const auto putAll = [&](std::span<const std::uint32_t> offsets, std::size_t shift) {
    const auto addend = static_cast<std::uint32_t>(shift);
    if (offsetSize == sizeof(std::uint16_t)) {
      for (const std::uint32_t offset : offsets) place = storeBigEndian<2>(place, offset + addend);
    } else {
#pragma GCC unroll 4
      for (const std::uint32_t offset : offsets) {
        const std::uint32_t stored = bigEndian32(offset + addend);
        std::memcpy(place, &stored, sizeof stored);
        place += sizeof stored;
      }
    }
  };
  putAll(_frame->offsets(), kMagic.size());
  putAll({_places.begin(), _places.size()}, 0);
  putAll(ending.offsets(), endingAt);
  return place;
}

}  // namespace orbiq
