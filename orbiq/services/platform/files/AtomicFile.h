#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "orbiq/services/platform/files/ChangedPages.h"
#include "orbiq/services/platform/files/Descriptor.h"

namespace orbiq {

/// A file that is replaced whole, mode 0600, again and again: whoever opens it, and whatever ends
/// this process, finds the old bytes or the new ones.
///
/// A spare file beside it, named ".new", takes the new bytes; then the two exchange their names.
/// The spare is kept for the next time, so that only what differs need be written. Whoever holds
/// the file open meanwhile may see it being rewritten. One thread at a time.
class AtomicFile {
 public:
  explicit AtomicFile(std::string path);

  /// `changed`: the pages in which the bytes differ from those of the last call. `synced`: returns
  /// only when the disk has the bytes. Returns 0 or the error number; then the old file stands, or
  /// the new one, if only the disk's word for it is missing.
  int replace(std::string_view bytes, const ChangedPages& changed, bool synced);

 private:
  /// A file of ours under one of the two names.
  class Version {
   public:
    void close() { _descriptor = {}; }

    /// Makes the file, in place of whatever may have been left there.
    int create(int directory, const std::string& name);
    /// Makes the file hold the bytes.
    int write(std::string_view bytes, bool synced);
    /// Asks for what some file systems tell only when a file is closed: that a write failed.
    int flush() const;
    /// Whether it is this file that has the name, as it was last written.
    bool standsAt(int directory, const std::string& name) const;

    ChangedPages stale;  ///< where it differs from the bytes of the last call

   private:
    int noteState();

    Descriptor _descriptor;
    struct stat _state{};
  };

  int write(std::string_view bytes, bool mayExchange, bool synced);

  const std::string _path;
  const std::string _name;
  const std::string _spareName;
  Descriptor _directory;
  Version _current;
  Version _spare;
};

/// Brings a file that was replaced without `synced` to the disk. Returns 0 or the error number.
int syncFile(const std::string& path);

/// The bytes of a regular file of at most `limit` bytes; no value for anything else. `failure`, if
/// given, becomes 0, or the error number where a file may be there but cannot be read (EFBIG: it is
/// longer).
std::optional<std::string> readFile(const std::string& path, std::size_t limit,
                                    int* failure = nullptr);

}  // namespace orbiq
