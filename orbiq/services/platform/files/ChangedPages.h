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
    pages._changed.assign((size + kSize - 1) / kSize, 1);
    return pages;
  }

  void add(std::size_t at, std::size_t size) {
    for (std::size_t page = at / kSize; page * kSize < at + size; ++page) _changed[page] = 1;
  }
  /// Adds those of the same bytes; where there were more or fewer before, all have changed.
  void add(const ChangedPages& more) {
    if (_changed.size() != more._changed.size()) _changed.assign(more._changed.size(), 1);
    for (std::size_t page = 0; page < _changed.size(); ++page)
      _changed[page] |= more._changed[page];
  }
  void clear() { _changed.assign(_changed.size(), 0); }

  /// The first changed pages from that one on that stand in a row, as begin and end; equal at last.
  std::pair<std::size_t, std::size_t> nextRun(std::size_t from) const {
    while (from < _changed.size() && _changed[from] == 0) ++from;
    std::size_t end = from;
    while (end < _changed.size() && _changed[end] != 0) ++end;
    return {from, end};
  }

 private:
  /// 1 for a changed page, else 0. Bytes, as bits took a third of a save's instructions.
  std::vector<unsigned char> _changed;
};

}  // namespace orbiq
