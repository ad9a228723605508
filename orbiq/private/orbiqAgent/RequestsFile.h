#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "orbiq/private/orbiqRequest/orbiqRequest.h"
#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/files/AtomicFile.h"
#include "orbiq/services/platform/files/FileLock.h"

namespace orbiq {

/// Oldest first.
using RequestQueue = std::deque<std::shared_ptr<orbiqRequest>>;

/// The queue on disk. Of several processes of one application the first one has the file; the
/// others start empty and write nothing. A process that could not even ask for the lock starts
/// empty, too, and saves once it has it. A process whose lock file was replaced locks the new one,
/// or writes nothing any more. One thread at a time.
class RequestsFile {
 public:
  explicit RequestsFile(std::string path);

  /// The queue that the file holds; empty, without a word, if there is none or it is no archive. A
  /// file that cannot be locked or read for another reason is an empty queue, too, which is said;
  /// the first save moves it aside.
  RequestQueue load();
  // What happens to the queue between two saves, in the order in which it happens; nothing else
  // tells the next save what it has to write.
  /// Behind all others.
  void added(const std::shared_ptr<orbiqRequest>& request) { _archiver.append(request); }
  void removed(std::size_t index) { _archiver.remove(index); }
  /// A request, or a record that one refers to; one that is not in the queue does not matter.
  void changed(const Archivable& record) { _archiver.change(&record); }

  /// Replaces the file by the queue; makes its directory if that has gone. What fails is logged
  /// when the cause changes, and changes nothing else: the next save tries again.
  void save(const RequestQueue& queue);
  /// Gives back the memory of a long queue's archive, which only makes the next save faster.
  void rest() { _archiver.forget(); }
  /// Syncs the last save, unless that was done.
  void sync();

 private:
  std::optional<RequestQueue> read(int& failure);
  bool isHeldByAnotherProcess();
  int write(const RequestQueue& queue);
  void report(int failure);

  const std::string _path;
  FileLock _lock;
  KeyedArchiver _archiver;
  AtomicFile _file;
  int _lastFailure = 0;
  bool _saidThatAnotherHasIt = false;
  bool _mustMoveAside = false;  ///< what has the file's name was not read
  bool _isUnsynced = false;
};

}  // namespace orbiq
