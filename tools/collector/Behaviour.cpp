#include "tools/collector/Behaviour.h"

#include <initializer_list>
#include <stdexcept>

namespace orbiq::collector {
namespace {

using nlohmann::json;

[[noreturn]] void refuse(const std::string& key, const std::string& expected) {
  throw std::invalid_argument(key + " must be " + expected);
}

std::string oneOf(std::initializer_list<const char*> names, const std::string& key,
                  const json& value) {
  std::string expected = "one of";
  for (const char* const name : names) {
    if (value == name) return name;
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

}  // namespace

const char* nameOf(Kind kind) { return kind == Kind::Auth ? "auth" : "hit"; }

bool Behaviour::stalls(Kind kind) const { return stall == "both" || stall == nameOf(kind); }

json toJson(const Behaviour& behaviour) {
  return {
      {"access", behaviour.access},
      {"host", behaviour.host ? json(*behaviour.host) : json(nullptr)},
      {"authStatus", behaviour.authStatus},
      {"hitStatus", behaviour.hitStatus},
      {"delayMs", behaviour.delay.count()},
      {"stall", behaviour.stall},
      {"dateSkewSeconds", behaviour.dateSkew.count()},
      {"malformed", behaviour.malformed},
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
  const std::string& malformed = behaviour.malformed;
  if (malformed != "no-date" && malformed != "bad-date") keep("dateSkewSeconds");
  if (malformed != "empty") {
    keep("access");
    keep("host");
  }
  return effective;
}

Behaviour changed(Behaviour behaviour, const json& changes) {
  if (!changes.is_object()) throw std::invalid_argument("the behaviour must be a JSON object");
  for (const auto& [key, value] : changes.items()) {
    if (key == "access") {
      behaviour.access = textOf(key, value);
    } else if (key == "host") {
      behaviour.host = value.is_null() ? std::nullopt : std::optional(textOf(key, value));
    } else if (key == "authStatus") {
      behaviour.authStatus = numberOf(key, value, 200, 599);
    } else if (key == "hitStatus") {
      behaviour.hitStatus = numberOf(key, value, 200, 599);
    } else if (key == "delayMs") {
      behaviour.delay = std::chrono::milliseconds(numberOf(key, value, 0, 600'000));
    } else if (key == "stall") {
      behaviour.stall = oneOf({"none", "auth", "hit", "both"}, key, value);
    } else if (key == "dateSkewSeconds") {
      constexpr int kMost = 1'000'000'000;
      behaviour.dateSkew = std::chrono::seconds(numberOf(key, value, -kMost, kMost));
    } else if (key == "malformed") {
      behaviour.malformed = oneOf(
          {"none", "missing-field", "no-date", "bad-date", "not-utf8", "empty", "cut"}, key, value);
    } else {
      throw std::invalid_argument("unknown key \"" + key + "\"");
    }
  }
  return behaviour;
}

}  // namespace orbiq::collector
