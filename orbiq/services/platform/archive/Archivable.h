#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "orbiq/services/platform/base/Object.h"

namespace orbiq {

class KeyedArchiver;
class KeyedUnarchiver;
class Archivable;

/// How the archive names a class, and how an object of it is made from an archive.
struct ArchivedClass {
  /// The class's name, its superclasses' names behind it, "NSObject" last.
  std::span<const std::string_view> names;
  /// Makes an object from the fields of the one that `coder` is reading.
  std::shared_ptr<Archivable> (*decode)(KeyedUnarchiver& coder);

  /// The class's own name.
  std::string_view name() const { return names.front(); }
};

/// An object that can stand in a keyed archive.
class ORBIQ_EXPORT Archivable : public Object {
 public:
  /// The entry of the object's own class; it lives as long as the process.
  virtual const ArchivedClass& archivedClass() const = 0;
  /// Writes the object's fields, each under its key.
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

}  // namespace orbiq
