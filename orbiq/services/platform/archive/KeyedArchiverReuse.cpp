// How an archiver goes on with the last archive.
#include <algorithm>
#include <cstddef>

#include "orbiq/services/platform/archive/KeyedArchiver.h"

namespace orbiq {
namespace {

constexpr std::size_t kMostAdded = 8;

}  // namespace

bool KeyedArchiver::goOn(std::size_t& kept) {
  if (_holdsMutableText || _frame->objects().refSize() != PlistRefSize::kTwo) return false;
  const std::optional<std::size_t> added = countAddedElements();
  if (!added) return false;
  while (_segments.size() > _elements.size() - *added) dropOldestSegment();
  _owners = countChangedSegments();
  if (*added != 0 || _owners != 0) return extend(*added);
  kept = _plist.size();
  return true;
}

/// How many elements come behind those of the last archive, which must be all the others.
std::optional<std::size_t> KeyedArchiver::countAddedElements() const {
  const std::size_t count = _elements.size();
  std::size_t added = 0;
  if (count != 0) {
    if (_segments.size() == 0) return std::nullopt;
    const std::size_t most = std::min(count - 1, kMostAdded);
    while (added < most && element(added) != _segments[0].element) ++added;
  }
  if (count - added > _segments.size()) return std::nullopt;
  for (std::size_t i = added; i < count; ++i) {
    if (element(i) != _segments[i - added].element) return std::nullopt;
  }
  return added;
}

/// Up to the last one that holds an object that has changed.
std::size_t KeyedArchiver::countChangedSegments() const {
  std::size_t count = 0;
  const Changeable* seen = _changeables.begin();
  for (std::size_t i = 0; i < _segments.size(); ++i) {
    const Changeable* const end = seen + _segments[i].changeables;
    // Whoever refers to an object stands before it and, being unchanged, keeps it alive.
    const bool isUnchanged = std::all_of(seen, end, [](const Changeable& changeable) {
      return changeable.object->revision() == changeable.revision;
    });
    if (!isUnchanged) count = i + 1;
    seen = end;
  }
  return count;
}

void KeyedArchiver::dropOldestSegment() {
  const Segment& oldest = *(_segments.end() - 1);
  _plist.dropBack(oldest.extent);
  _changeables.dropBack(oldest.changeables);
  _known.dropBack(oldest.extent.uids);
  _table.dropBack(oldest.extent.uids);
  _segments.dropBack(1);
}

/// Encodes the new elements, and anew those segments that change or lose something to them.
bool KeyedArchiver::extend(std::size_t added) {
  if (_holdsRepeated || isMostlyForgotten()) return false;
  const std::size_t changed = _owners;
  beginBlock();
  _owners = changed;
  for (std::size_t i = 0; i < added + _owners; ++i) {
    // Then all of it takes hardly longer.
    if (2 * i > _elements.size() + kMostAdded) return false;
    encodeSegment(*element(i));
  }
  const std::size_t objects = _plist.endRef() + _block.offsets().size() + kEndingObjects;
  if (_holdsMutableText || _holdsRepeated || !ExtendablePlist::fits(objects, PlistRefSize::kTwo) ||
      !findSuccessors()) {
    return false;
  }
  takeBlock();
  _block.end();
  return true;
}

/// Whether the tables hold mostly what is not in the archive any more.
bool KeyedArchiver::isMostlyForgotten() const {
  std::size_t remembered = 0;
  for (const AddressTable& table : _entries) remembered += table.size();
  return remembered > _known.size() + _known.size() / 4 + 256;
}

/// For each object of the segments that go, the one in the block that what stays refers to instead.
bool KeyedArchiver::findSuccessors() {
  std::size_t entries = 0;
  std::size_t objects = 0;
  for (std::size_t i = 0; i < _owners; ++i) {
    entries += _segments[i].extent.uids;
    objects += _segments[i].extent.objects;
  }
  _successors.assign(objects, 0);
  const std::uint32_t first = _segments.size() == 0 ? 0 : _plist.handleOf(_plist.firstRef());
  for (std::size_t i = 0; i < entries; ++i) {
    const Known& known = _known[i];
    if (known.address == nullptr) continue;
    const std::uint32_t number = _entries[static_cast<std::size_t>(known.kind)].find(known.address);
    // Whoever changed has dropped it; an older element may have it still.
    if (number == AddressTable::kNone || (number & kInBlock) == 0) return false;
    _successors[known.uidHandle - first] = _listed[number & ~kInBlock].uidRef;
  }
  return true;
}

}  // namespace orbiq
