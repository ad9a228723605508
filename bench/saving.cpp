// What it costs to save the queue, against writing the same bytes and putting them in place.
#include <plist/plist.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/Requests.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/files/AtomicFile.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRepetitions = 301;
constexpr std::array<std::size_t, 4> kDepths{1, 10, 100, 500};

/// A queue that keeps its length, and what it took to save it.
class Depth {
 public:
  Depth(std::size_t size, std::string path) : _path(std::move(path)) {
    while (queue.size() < size) queue.push_back(_requests.next());
  }

  /// The head goes, then another request comes; the file is saved after each.
  void saveTwice() {
    queue.pop_front();
    removal.push_back(microseconds([&] {
      _file.removed(0);
      _file.save(queue);
    }));
    queue.push_back(_requests.next());
    addition.push_back(microseconds([&] {
      _file.added(queue.back());
      _file.save(queue);
    }));
  }
  void encodeWhole() {
    encoding.push_back(microseconds([&] { _archiver.encode({queue.begin(), queue.end()}); }));
    bytes = _archiver.bytes();
  }
  /// The same change of a queue, encoded alone.
  void encodeAddition() {
    const auto request = _requests.next();
    _archiver.remove(0);
    appending.push_back(microseconds([&] { _archiver.append(request); }));
    if (!_archiver.isWhole()) throw std::runtime_error("an addition was not encoded alone");
  }
  void writePlainly() {
    exchanging.push_back(microseconds([&] {
      if (_plain.replace(bytes, ChangedPages::all(bytes.size()), false) != 0) {
        throw std::runtime_error("cannot write beside " + _path);
      }
    }));
  }

  RequestQueue queue;
  std::string bytes;
  std::vector<double> removal, addition, appending, encoding, exchanging;

 private:
  const std::string _path;
  Requests _requests;
  RequestsFile _file{_path};
  KeyedArchiver _archiver;
  AtomicFile _plain{_path + ".exchanged"};
};

std::vector<double> divided(const std::vector<double>& dividends,
                            const std::vector<double>& divisors, double factor = 1) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < dividends.size(); ++i) {
    ratios.push_back(factor * dividends[i] / divisors[i]);
  }
  return ratios;
}

/// What another library takes for what an archiver does.
struct Encoders {
  std::vector<double> addition, whole, libplist;

  explicit Encoders(std::size_t size) {
    constexpr std::size_t kEncodings = 51;
    Requests requests;
    RequestQueue queue;
    while (queue.size() < size) queue.push_back(requests.next());
    KeyedArchiver archiver;
    archiver.encode({queue.begin(), queue.end()});
    for (std::size_t i = 0; i < kEncodings; ++i) {
      queue.pop_front();
      archiver.remove(0);
      queue.push_back(requests.next());
      addition.push_back(microseconds([&] { archiver.append(queue.back()); }));
      KeyedArchiver fresh;
      whole.push_back(microseconds([&] { fresh.encode({queue.begin(), queue.end()}); }));
      libplist.push_back(buildAndSerialise(fresh.bytes()));
    }
  }

 private:
  /// All nodes are made, from those of the same archive, and written.
  static double buildAndSerialise(std::string_view bytes) {
    plist_t archive = nullptr;
    plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &archive);
    if (archive == nullptr) throw std::runtime_error("libplist cannot read the archive");
    char* written = nullptr;
    std::uint32_t size = 0;
    const double time = microseconds([&] {
      plist_t built = plist_copy(archive);
      plist_to_bin(built, &written, &size);
      plist_free(built);
    });
    plist_free(archive);
    if (written == nullptr) throw std::runtime_error("libplist cannot write the archive");
    std::free(written);  // each version has another name for this
    return time;
  }
};

/// Milliseconds for so many additions to an empty queue, all of them saved.
double additionsInARow(const std::string& path, std::size_t count) {
  Requests requests;
  RequestsFile file(path);
  RequestQueue queue;
  return microseconds([&] {
           while (queue.size() < count) {
             file.added(queue.emplace_back(requests.next()));
             file.save(queue);
           }
         }) /
         1000;
}

void reportDepth(const Depth& depth) {
  const std::string suffix = ", depth " + std::to_string(depth.queue.size());
  reportSamples("saving", "an addition" + suffix, depth.addition, "µs");
  reportSamples("saving", "a removal" + suffix, depth.removal, "µs");
  reportSamples("saving", "a first encoding" + suffix, depth.encoding, "µs");
  reportSamples("saving", "an addition's encoding" + suffix, depth.appending, "µs");
  reportSamples("saving", "writing the same bytes and exchanging" + suffix, depth.exchanging, "µs");
}

void reportRatio(const char* what, const std::vector<double>& ratios, std::optional<Aim> aim = {}) {
  reportSamples("saving", what, ratios, "", aim);
}

void measure(const std::string& directory) {
  std::vector<std::unique_ptr<Depth>> depths;
  depths.reserve(kDepths.size());
  for (const std::size_t size : kDepths) {
    depths.push_back(
        std::make_unique<Depth>(size, directory + "/depth" + std::to_string(size) + ".ser"));
  }
  for (std::size_t repetition = 0; repetition < kRepetitions; ++repetition) {
    for (const auto& depth : depths) {
      depth->encodeWhole();
      depth->encodeAddition();
      // Neither side always comes second.
      if (repetition % 2 == 0) depth->saveTwice();
      depth->writePlainly();
      if (repetition % 2 == 1) depth->saveTwice();
    }
  }
  std::printf("saving the queue; medians of %zu repetitions\n", kRepetitions);
  for (const auto& depth : depths) reportDepth(*depth);

  const Depth& one = *depths.front();
  const Depth& hundred = *depths[2];
  const Depth& full = *depths[3];
  reportRatio("addition at depth 500 / write and exchange", divided(full.addition, full.exchanging),
              Aim{Aim::Kind::kAtMost, 0.9});
  reportRatio("removal at depth 500 / write and exchange", divided(full.removal, full.exchanging),
              Aim{Aim::Kind::kAtMost, 0.9});
  reportRatio("addition at depth 1 / write and exchange", divided(one.addition, one.exchanging),
              Aim{Aim::Kind::kAtMost, 1.2});
  reportRatio("removal at depth 1 / write and exchange", divided(one.removal, one.exchanging),
              Aim{Aim::Kind::kAtMost, 1.2});
  reportRatio("an addition's encoding, depth 500 / depth 1", divided(full.appending, one.appending),
              Aim{Aim::Kind::kAtMost, 1.5});
  // Linear: a request costs no more in a long queue than in a short one.
  const double fewer =
      static_cast<double>(hundred.queue.size()) / static_cast<double>(full.queue.size());
  reportRatio("encode per request, depth 500 / depth 100",
              divided(full.encoding, hundred.encoding, fewer), Aim{Aim::Kind::kBelow, 1.25});
  const Encoders encoders(full.queue.size());
  reportRatio("libplist's encoding / an addition's, depth 500",
              divided(encoders.libplist, encoders.addition), Aim{Aim::Kind::kAtLeast, 500});
  reportRatio("libplist's encoding / a first one, depth 500",
              divided(encoders.libplist, encoders.whole));

  std::vector<double> rows;
  for (int run = 0; run < 9; ++run) {
    rows.push_back(additionsInARow(directory + "/row" + std::to_string(run) + ".ser", 500));
  }
  reportSamples("saving", "500 additions in a row, all saved", rows, "ms",
                Aim{Aim::Kind::kAtMost, 12});
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
