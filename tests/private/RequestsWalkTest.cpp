// A random walk: whatever happens to the queue, another reader finds it in the file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "tests/support/Application.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Torture.h"

namespace orbiq::test {
namespace {

namespace fs = std::filesystem;

/// Each request as judge_queues.py has to find it: its text, what changes in its place, and by
/// numbers the objects that requests share.
std::string described(const RequestQueue& queue) {
  std::ostringstream text;
  std::map<const void*, std::size_t> seen;
  const auto share = [&](const auto& object) {
    text << (object ? seen.emplace(object.get(), seen.size() + 1).first->second : 0) << ' ';
  };
  for (const auto& request : queue) {
    share(request);
    if (dynamic_cast<const orbiqClearCache*>(request.get()) != nullptr) {
      text << "marker\n";
      continue;
    }
    const auto tagger = request->taggerID();
    const auto auth = request->auth();
    share(request->parameters());
    share(tagger);
    share(auth);
    if (auth) {
      share(auth->currentAccess());
      share(auth->currentSession());
      text << auth->currentSession()->cmsVI().description() << ' '
           << auth->currentAccess()->canSendRequestFor(RequestTypeStreaming) << ' ';
    }
    text << tagger->partialID() << ' ' << request->numberOfFails() << ' '
         << request->lastFail().value_or(Date{}).secondsSinceReferenceDate << ' '
         << request->creationDate()->secondsSinceReferenceDate << ' ' << request->description()
         << '\n';
  }
  return text.str();
}

/// What requests of an account share.
struct Account {
  explicit Account(std::size_t number)
      : serial("24104120860" + std::to_string(number)),
        tagger(std::make_shared<orbiqTaggerID>(serial, 0, number % 2 == 0)),
        auth(std::make_shared<orbiqAuth>(
            std::make_shared<orbiqSession>(serial, number % 3 == 0 ? String() : "28174044"),
            std::make_shared<orbiqAccess>(serial, AccessModeRestricted, "https://hits.example/"),
            false)) {}

  String serial;
  std::shared_ptr<orbiqTaggerID> tagger;
  std::shared_ptr<orbiqAuth> auth;
};

class Walk {
 public:
  explicit Walk(std::mt19937& random) : _random(random) {}

  /// Some change, to a queue that mostly keeps to `depth`.
  void goOn(std::size_t depth) {
    const std::size_t size = _queue.size();
    if (size < depth / 2) return addMany(depth / 2);
    if (size > 2 * depth) return removeMany(size - depth);
    switch (draw(23)) {
      case 0:
        any()->setNumberOfFails(draw(200));
        _last->setLastFail(Date{static_cast<double>(_step)});
        return _file.changed(*_last);
      case 1:
        any()->setAuth(draw(2) == 0 ? nullptr : account().auth);
        return _file.changed(*_last);
      case 2:
        any()->transformToStop();
        return _file.changed(*_last);
      case 3:
        return _file.changed(*account().auth->currentAccess()->hitSuccessfullySent());
      case 4: {
        orbiqTaggerID& tagger = *account().tagger;
        tagger.setPartialID(static_cast<std::intptr_t>(_random()) << draw(32));
        return _file.changed(tagger);
      }
      case 5:
        account() = Account(draw(10));
        return;
      case 6:
        return remove(draw(size));
      case 7:
        return add(any());
      case 8:
        return add(std::make_shared<orbiqClearCache>());
      case 9:
        return _mutable.appendString("\xC3\xA9");
      case 10:
        return _file.rest();
      default:
        return draw(2) == 0 ? add(request()) : remove(0);
    }
  }
  void addMany(std::size_t count) {
    while (count-- > 0) add(request());
  }
  void removeMany(std::size_t count) {
    while (count-- > 0) remove(0);
  }

  /// Now and then over a file of somebody else's, or in vain: then the file is as it was.
  void save() {
    const std::size_t fate = _step == 0 ? 2 : draw(20);
    if (fate == 0) fs::remove(_path + ".new"), fs::create_directories(_path + ".new/in the way");
    if (fate == 1) fs::remove(_path), std::ofstream(_path) << "somebody else's";
    _file.save(_queue);
    if (fate == 0) fs::remove_all(_path + ".new");
    if (fate != 0) _saved = described(_queue);
    const std::string name = _directory.path() / std::to_string(_step++);
    fs::copy_file(_path, name + ".ser");
    std::ofstream(name + ".txt") << _saved;
  }

  /// 0 if the other reader found in each file what was to be there.
  int judge() const {
    return std::system(("python3 " ORBIQ_TEST_SUPPORT "/judge_queues.py " +
                        _directory.path().string() + " " + std::to_string(_step))
                           .c_str());
  }

 private:
  std::size_t draw(std::size_t count) { return _random() % count; }
  Account& account() { return _accounts[_random() % (draw(3) == 0 ? _accounts.size() : 1)]; }
  const std::shared_ptr<orbiqRequest>& any() {
    if (_queue.empty()) add(request());
    return _last = _queue[draw(_queue.size())];
  }
  void add(const std::shared_ptr<orbiqRequest>& request) {
    _queue.push_back(request);
    _file.added(request);
  }
  void remove(std::size_t index) {
    if (index >= _queue.size()) return;
    _queue.erase(_queue.begin() + static_cast<std::ptrdiff_t>(index));
    _file.removed(index);
  }
  std::shared_ptr<orbiqRequest> request() {
    const Account& from = account();
    Parameters parameters{{"n", std::to_string(_random())}, {_key, from.serial}, {"v", _version}};
    if (draw(8) == 0) parameters.emplace("own key", "caf\xC3\xA9 \xF0\x9F\x98\x80");
    if (draw(30) == 0) parameters.emplace("long", std::string(draw(3000), 'x'));
    // Each save of a queue with one encodes it anew: not a long one, whose saves are to go on.
    if (draw(50) == 0 && _queue.size() < 50) parameters.emplace("mutable", _mutable);
    const bool isShared = draw(20) == 0 && !_queue.empty();
    auto request = std::make_shared<orbiqRequest>(
        isShared ? _queue.back()->parameters()
                 : std::make_shared<const Parameters>(std::move(parameters)),
        RequestTypeStreaming, SendingModeHost, from.serial, from.tagger);
    request->setCreationDate(Date{static_cast<double>(draw(1'000'000))});
    if (draw(4) != 0) request->setAuth(draw(4) == 0 ? from.auth : from.auth->copy());
    return request;
  }
  std::mt19937& _random;
  const TemporaryDirectory _directory;
  const std::string _path = _directory.path() / "requests.ser";
  RequestsFile _file{_path};
  RequestQueue _queue;
  std::vector<Account> _accounts{Account(0), Account(1), Account(2), Account(3)};
  MutableString _mutable{"changes"};
  const String _key = "serial", _version = "1.0";
  std::shared_ptr<orbiqRequest> _last;
  std::string _saved;
  std::size_t _step = 0;
};

TEST(RequestsWalk, AnotherReaderFindsTheQueueAtEachStep) {
  const Application application(kNoServer);
  std::mt19937 random = seededRandom();
  for (std::size_t round = 0; round < tortured(1, 50); ++round) {
    Walk walk(random);
    for (const unsigned depth : {3U, 40U, 4U, 500U, 20U, 2U}) {
      for (int step = 0; step < 60; ++step) {
        walk.goOn(depth);
        walk.save();
      }
    }
    // More than 65,535 objects, and back.
    for (const unsigned count : {3'000U, 500U, 500U, 10U}) walk.addMany(count), walk.save();
    for (const unsigned count : {1U, 3'900U, 60U, 10'000U}) walk.removeMany(count), walk.save();
    EXPECT_EQ(walk.judge(), 0);
  }
}

}  // namespace
}  // namespace orbiq::test
