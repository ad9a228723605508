#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <vector>

#include "orbiq/services/platform/base/Export.h"
#include "orbiq/services/platform/text/String.h"

namespace orbiq {

/// The parameters of a hit: texts by key, in the order of the keys' bytes. One piece of memory,
/// since up to 500 requests wait with theirs. A null key counts as an empty one.
class ORBIQ_EXPORT Parameters {
 public:
  /// A parameter.
  struct Entry {
    String key;    ///< never a text that can change
    String value;  ///< may be null
    /// Equal texts.
    bool operator==(const Entry& other) const = default;
  };

  /// None.
  Parameters() = default;
  /// In any order; of entries with equal keys the first one stays.
  Parameters(std::initializer_list<Entry> entries);
  /// The same.
  explicit Parameters(std::vector<Entry> entries);

  /// Makes room for so many.
  void reserve(std::size_t count) { _entries.reserve(count); }
  /// Adds a parameter, unless there is one of that key. Fastest in the order of the keys.
  void emplace(const String& key, String value);
  /// The same, in place of one that is there.
  void insert_or_assign(const String& key, String value);

  /// The first one.
  auto begin() const { return _entries.begin(); }
  /// Behind the last one.
  auto end() const { return _entries.end(); }
  /// How many there are.
  std::size_t size() const { return _entries.size(); }
  /// Whether there are none.
  bool empty() const { return _entries.empty(); }
  /// Where the parameter is, or `end()`.
  std::vector<Entry>::const_iterator find(std::string_view key) const;
  /// Whether there is one.
  bool contains(std::string_view key) const { return find(key) != end(); }
  /// The parameter's text. Throws `std::out_of_range` if there is none.
  const String& at(std::string_view key) const;

  /// The same keys with equal texts.
  bool operator==(const Parameters& other) const = default;

 private:
  std::vector<Entry>::iterator placeOf(std::string_view key);

  std::vector<Entry> _entries;
};

/// How a request holds its parameters: shared, and replaced whole instead of changed.
using SharedParameters = std::shared_ptr<const Parameters>;

}  // namespace orbiq
