#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace orbiq {

/// Numbers by key, made to be filled and forgotten again and again: `clear` takes no time and keeps
/// the memory. Keys are trivial values.
template <class Key, class Hash>
class InternTable {
 public:
  static constexpr std::uint32_t kNone = UINT32_MAX;

  InternTable() : _slots(kSmallest) {}

  void clear() {
    _used = 0;
    if (++_generation == 0) {
      _slots.assign(_slots.size(), Slot{});
      _generation = 1;
    }
  }

  /// The key's number, `kNone` for a new key; to be set by the caller, valid until the next call.
  std::uint32_t& operator[](const Key& key) {
    Slot* slot = &find(key);
    if (slot->generation != _generation) {
      if (2 * ++_used > _slots.size()) {
        enlarge();
        slot = &find(key);
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

  /// The key's slot, or the free one where it belongs. Half of the slots are always free.
  Slot& find(const Key& key) {
    const int shift = 64 - std::countr_zero(_slots.size());
    const std::uint64_t mixed = std::uint64_t{Hash()(key)} * 0x9E3779B97F4A7C15U;
    auto index = static_cast<std::size_t>(mixed >> shift);
    while (_slots[index].generation == _generation && !(_slots[index].key == key)) {
      index = (index + 1) & (_slots.size() - 1);
    }
    return _slots[index];
  }

  void enlarge() {
    std::vector<Slot> old(2 * _slots.size());
    old.swap(_slots);
    for (const Slot& slot : old) {
      if (slot.generation == _generation) find(slot.key) = slot;
    }
  }

  std::vector<Slot> _slots;  ///< as many as a power of two
  std::size_t _used = 0;
  std::uint32_t _generation = 1;
};

}  // namespace orbiq
