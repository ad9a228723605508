#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace orbiq {

/// Which pages of a row of bytes differ from what they were.
class ChangedPages {
 public:
  static constexpr std::size_t kSize = 4096;

  ChangedPages() = default;
  /// All pages of so many bytes.
  static ChangedPages all(std::size_t size) {
    ChangedPages pages;
    pages._changed.assign((size + kSize - 1) / kSize, true);
    return pages;
  }

  void add(std::size_t at, std::size_t size) {
    for (std::size_t page = at / kSize; page * kSize < at + size; ++page) _changed[page] = true;
  }
  /// Adds those of the same bytes; where there were more or fewer before, all have changed.
  void add(const ChangedPages& more) {
    if (_changed.size() != more._changed.size()) _changed.assign(more._changed.size(), true);
    for (std::size_t page = 0; page < _changed.size(); ++page) {
      if (more._changed[page]) _changed[page] = true;
    }
  }
  void clear() { _changed.assign(_changed.size(), false); }

  /// The first changed pages from that one on that stand in a row, as begin and end; equal at last.
  std::pair<std::size_t, std::size_t> nextRun(std::size_t from) const {
    while (from < _changed.size() && !_changed[from]) ++from;
    std::size_t end = from;
    while (end < _changed.size() && _changed[end]) ++end;
    return {from, end};
  }

 private:
  std::vector<bool> _changed;
};

}  // namespace orbiq
