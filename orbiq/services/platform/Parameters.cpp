#include "orbiq/services/platform/Parameters.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace orbiq {
namespace {

bool comesBefore(const Parameters::Entry& entry, std::string_view key) {
  return entry.key.view() < key;
}

}  // namespace

Parameters::Parameters(std::initializer_list<Entry> entries)
    : Parameters(std::vector<Entry>(entries)) {}

// Sorted at the end, for the sake of long lists: a file may hold one.
Parameters::Parameters(std::vector<Entry> entries) : _entries(std::move(entries)) {
  for (Entry& entry : _entries) entry.key = entry.key.copy();
  std::stable_sort(_entries.begin(), _entries.end(), [](const Entry& left, const Entry& right) {
    return comesBefore(left, right.key.view());
  });
  const auto end = std::unique(
      _entries.begin(), _entries.end(),
      [](const Entry& left, const Entry& right) { return left.key.view() == right.key.view(); });
  _entries.erase(end, _entries.end());
}

void Parameters::emplace(String key, String value) {
  const auto place = placeOf(key.view());
  if (place != _entries.end() && place->key.view() == key.view()) return;
  _entries.insert(place, {key.copy(), std::move(value)});
}

void Parameters::insert_or_assign(String key, String value) {
  const auto place = placeOf(key.view());
  if (place != _entries.end() && place->key.view() == key.view()) {
    place->value = std::move(value);
  } else {
    _entries.insert(place, {key.copy(), std::move(value)});
  }
}

std::vector<Parameters::Entry>::const_iterator Parameters::find(std::string_view key) const {
  const auto place = std::lower_bound(_entries.begin(), _entries.end(), key, comesBefore);
  return place != _entries.end() && place->key.view() == key ? place : _entries.end();
}

const String& Parameters::at(std::string_view key) const {
  const auto place = find(key);
  if (place == _entries.end()) throw std::out_of_range("no parameter of that key");
  return place->value;
}

std::vector<Parameters::Entry>::iterator Parameters::placeOf(std::string_view key) {
  if (_entries.empty() || comesBefore(_entries.back(), key)) return _entries.end();
  return std::lower_bound(_entries.begin(), _entries.end(), key, comesBefore);
}

}  // namespace orbiq
