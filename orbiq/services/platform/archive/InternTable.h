#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "orbiq/services/platform/archive/PageMemory.h"

namespace orbiq {

/// Numbers by key, made to be filled and forgotten again and again: `clear` takes no time and keeps
/// the memory. Keys are trivial values.
template <class Key, class Hash>
class InternTable {
 public:
  static constexpr std::uint32_t kNone = UINT32_MAX;

  InternTable() : _slots(emptySlots(kSmallest)) {}

  void clear() {
    _used = 0;
    if (++_generation == 0) {
      _slots = emptySlots(_slots.size());
      _generation = 1;
    }
  }

  /// How many keys there are.
  std::size_t size() const { return _used; }

  /// The key's number, `kNone` if it is not there.
  std::uint32_t find(const Key& key) const {
    const Slot& slot = _slots.get()[indexOf(key)];
    return slot.generation == _generation ? slot.number : kNone;
  }

  /// The key's number, `kNone` for a new key; to be set by the caller, valid until the next call.
  std::uint32_t& operator[](const Key& key) {
    Slot* slot = &_slots.get()[indexOf(key)];
    if (slot->generation != _generation) {
      if (2 * ++_used > _slots.size()) {
        enlarge();
        slot = &_slots.get()[indexOf(key)];
      }
      *slot = {key, kNone, _generation};
    }
    return slot->number;
  }

 private:
  struct Slot {
    Key key{};
    std::uint32_t number = kNone;
    std::uint32_t generation = 0;
  };
  static constexpr std::size_t kSmallest = 64;

  /// The key's place, or the free one where it belongs. Half of the slots are always free.
  std::size_t indexOf(const Key& key) const {
    const int shift = 64 - std::countr_zero(_slots.size());
    const std::uint64_t mixed = std::uint64_t{Hash()(key)} * 0x9E3779B97F4A7C15U;
    auto index = static_cast<std::size_t>(mixed >> shift);
    const Slot* const slots = _slots.get();
    while (slots[index].generation == _generation && !(slots[index].key == key)) {
      index = (index + 1) & (_slots.size() - 1);
    }
    return index;
  }

  static PageArray<Slot> emptySlots(std::size_t count) {
    PageArray<Slot> slots(count);
    std::uninitialized_fill_n(slots.get(), count, Slot{});
    return slots;
  }

  [[gnu::noinline]] void enlarge() {
    const PageArray<Slot> old = std::exchange(_slots, emptySlots(2 * _slots.size()));
    for (std::size_t i = 0; i < old.size(); ++i) {
      const Slot& slot = old.get()[i];
      if (slot.generation == _generation) _slots.get()[indexOf(slot.key)] = slot;
    }
  }

  PageArray<Slot> _slots;  ///< as many as a power of two
  std::size_t _used = 0;
  std::uint32_t _generation = 1;
};

}  // namespace orbiq
