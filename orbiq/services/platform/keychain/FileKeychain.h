#pragma once

#include <chrono>
#include <string>

#include "orbiq/services/platform/keychain/Keychain.h"

namespace orbiq {

/// A keychain in a directory: one file for each item, readable by this user alone, not encrypted.
/// Any thread; any number of processes may share the directory.
///
/// An item is there whole or not at all, and what was answered with success has reached the disk.
/// What is damaged or no file is answered with `errSecNotAvailable`; nothing but deleting removes
/// it, which a directory in a file's place outlasts. The file's name holds the texts of the query:
/// more than some 200 letters in all, or a third of that in other signs, are `errSecNotAvailable`.
class FileKeychain final : public Keychain {
 public:
  /// Uses `directory`, which is made (0700) when the first item is added. Changes wait for those of
  /// others for at most `lockLimit`, then answer `errSecNotAvailable`; look-ups never wait.
  explicit FileKeychain(std::string directory,
                        std::chrono::milliseconds lockLimit = std::chrono::seconds(2));

  KeychainMatch copyMatching(const KeychainQuery& query) override;
  KeychainStatus add(const KeychainQuery& query) override;
  KeychainStatus update(const KeychainQuery& query, const KeychainAttributes& changes) override;
  KeychainStatus deleteMatching(const KeychainQuery& query) override;

 private:
  template <class Operation>
  KeychainStatus change(const KeychainQuery& query, bool makesDirectory,
                        const Operation& operation) const;

  const std::string _directory;
  const std::chrono::milliseconds _lockLimit;
};

}  // namespace orbiq
