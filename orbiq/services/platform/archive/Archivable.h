#pragma once

#include <atomic>
#include <cstdint>
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

  /// The revision of an object that what it encodes will never change.
  static constexpr std::uint64_t kNeverChanges = 0;
  /// A number that neither another changing object nor an earlier state of this one ever had: what
  /// was encoded under it need not be encoded again. Any thread.
  std::uint64_t revision() const { return _revision.load(std::memory_order_acquire); }

 protected:
  /// An object of a revision of its own.
  Archivable() : Archivable(nextRevision()) {}
  /// For an object of another revision than a new one, such as one that never changes.
  explicit Archivable(std::uint64_t revision) : _revision(revision) {}
  /// To be called after each change of what `encodeWithCoder` writes, shared texts excepted.
  void changed() { _revision.store(nextRevision(), std::memory_order_release); }

 private:
  static std::uint64_t nextRevision();

  std::atomic<std::uint64_t> _revision;
};

}  // namespace orbiq
