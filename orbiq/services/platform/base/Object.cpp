#include "orbiq/services/platform/base/Object.h"

#include <functional>
#include <sstream>

namespace orbiq {

Object::~Object() = default;

bool Object::isEqual(const Object* other) const { return other == this; }

std::uintptr_t Object::hash() const { return std::hash<const Object*>()(this); }

std::string Object::description() const {
  std::ostringstream text;
  text << "<" << static_cast<const void*>(this) << ">";
  return text.str();
}

}  // namespace orbiq
