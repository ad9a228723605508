#include "orbiq/services/platform/text/Parameters.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace orbiq {
namespace {

bool comesBefore(const Parameters::Entry& entry, std::string_view key) {
  return entry.key.view() < key;
}

}  // namespace

Parameters::Parameters(std::initializer_list<Entry> entries)
    : Parameters(std::vector<Entry>(entries)) {}

// Sorted before they are added, for the sake of long lists: a file may hold one.
Parameters::Parameters(std::vector<Entry> entries) {
  std::vector<std::pair<std::string_view, std::size_t>> order;
  order.reserve(entries.size());
  for (const Entry& entry : entries) order.emplace_back(entry.key.view(), order.size());
  std::make_heap(order.begin(), order.end());
  std::sort_heap(order.begin(), order.end());
  _entries.reserve(entries.size());
  for (const auto& [key, index] : order) {
    emplace(entries[index].key, std::move(entries[index].value));
  }
}

void Parameters::emplace(const String& key, String value) {
  const auto place = placeOf(key.view());
  if (place != _entries.end() && place->key.view() == key.view()) return;
  _entries.insert(place, {key.copy(), std::move(value)});
}

void Parameters::insert_or_assign(const String& key, String value) {
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
