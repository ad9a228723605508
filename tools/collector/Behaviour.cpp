#include "tools/collector/Behaviour.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace orbiq::collector {
namespace {

using nlohmann::json;

template <class Value, std::size_t size>
using Names = std::array<std::pair<std::string_view, Value>, size>;

constexpr Names<Stall, 4> kStalls{{
    {"none", Stall::None},
    {"auth", Stall::Auth},
    {"hit", Stall::Hit},
    {"both", Stall::Both},
}};

constexpr Names<Malformed, 7> kMalformed{{
    {"none", Malformed::None},
    {"missing-field", Malformed::MissingField},
    {"no-date", Malformed::NoDate},
    {"bad-date", Malformed::BadDate},
    {"not-utf8", Malformed::NotUtf8},
    {"empty", Malformed::Empty},
    {"cut", Malformed::Cut},
}};

template <class Value, std::size_t size>
std::string nameIn(const Names<Value, size>& names, Value value) {
  for (const auto& [name, known] : names) {
    if (known == value) return std::string(name);
  }
  return {};
}

[[noreturn]] void refuse(const std::string& key, const std::string& expected) {
  throw std::invalid_argument(key + " must be " + expected);
}

template <class Value, std::size_t size>
Value valueIn(const Names<Value, size>& names, const std::string& key, const json& value) {
  std::string expected = "one of";
  for (const auto& [name, known] : names) {
    if (value.is_string() && value.get_ref<const std::string&>() == name) return known;
    expected.append(" ").append(name);
  }
  refuse(key, expected);
}

std::string textOf(const std::string& key, const json& value) {
  if (!value.is_string()) refuse(key, "a text");
  try {
    static_cast<void>(value.dump());  // a text of the command line may be in any encoding
  } catch (const json::exception&) {
    refuse(key, "a text in UTF-8");
  }
  return value.get<std::string>();
}

int numberOf(const std::string& key, const json& value, int least, int most) {
  // Compared as a double: a number may be larger than any integer type.
  if (!value.is_number_integer() || value.get<double>() < least || value.get<double>() > most) {
    refuse(key, "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
  }
  return value.get<int>();
}

using Setter = std::function<void(Behaviour&, const std::string& key, const json& value)>;

const std::map<std::string, Setter>& setters() {
  static const std::map<std::string, Setter> all{
      {"access", [](Behaviour& b, const auto& key, const auto& v) { b.access = textOf(key, v); }},
      {"host",
       [](Behaviour& b, const auto& key, const auto& v) {
         b.host = v.is_null() ? std::nullopt : std::optional(textOf(key, v));
       }},
      {"authStatus", [](Behaviour& b, const auto& key,
                        const auto& v) { b.authStatus = numberOf(key, v, 200, 599); }},
      {"hitStatus", [](Behaviour& b, const auto& key,
                       const auto& v) { b.hitStatus = numberOf(key, v, 200, 599); }},
      {"delayMs",
       [](Behaviour& b, const auto& key, const auto& v) {
         b.delay = std::chrono::milliseconds(numberOf(key, v, 0, 600'000));
       }},
      {"stall",
       [](Behaviour& b, const auto& key, const auto& v) { b.stall = valueIn(kStalls, key, v); }},
      {"dateSkewSeconds",
       [](Behaviour& b, const auto& key, const auto& v) {
         b.dateSkew = std::chrono::seconds(numberOf(key, v, -1'000'000'000, 1'000'000'000));
       }},
      {"malformed", [](Behaviour& b, const auto& key,
                       const auto& v) { b.malformed = valueIn(kMalformed, key, v); }},
  };
  return all;
}

}  // namespace

const char* nameOf(Kind kind) { return kind == Kind::Auth ? "auth" : "hit"; }

bool Behaviour::stalls(Kind kind) const {
  return stall == Stall::Both || stall == (kind == Kind::Auth ? Stall::Auth : Stall::Hit);
}

json toJson(const Behaviour& behaviour) {
  return {
      {"access", behaviour.access},
      {"host", behaviour.host ? json(*behaviour.host) : json(nullptr)},
      {"authStatus", behaviour.authStatus},
      {"hitStatus", behaviour.hitStatus},
      {"delayMs", behaviour.delay.count()},
      {"stall", nameIn(kStalls, behaviour.stall)},
      {"dateSkewSeconds", behaviour.dateSkew.count()},
      {"malformed", nameIn(kMalformed, behaviour.malformed)},
  };
}

json applied(const Behaviour& behaviour, Kind kind) {
  static const json healthy = toJson(Behaviour());
  json all = toJson(behaviour);
  json effective = json::object();
  const auto keep = [&](const char* key) {
    if (all[key] != healthy[key]) effective[key] = std::move(all[key]);
  };
  keep("delayMs");
  keep("stall");
  if (kind == Kind::Hit) {
    keep("hitStatus");
    return effective;
  }
  keep("authStatus");
  keep("malformed");
  const Malformed malformed = behaviour.malformed;
  if (malformed != Malformed::NoDate && malformed != Malformed::BadDate) keep("dateSkewSeconds");
  if (malformed != Malformed::Empty) {
    keep("access");
    keep("host");
  }
  return effective;
}

Behaviour changed(Behaviour behaviour, const json& changes) {
  if (!changes.is_object()) throw std::invalid_argument("the behaviour must be a JSON object");
  for (const auto& [key, value] : changes.items()) {
    const auto setter = setters().find(key);
    if (setter == setters().end()) throw std::invalid_argument("unknown key \"" + key + "\"");
    setter->second(behaviour, key, value);
  }
  return behaviour;
}

}  // namespace orbiq::collector
