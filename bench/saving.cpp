// What it costs to save the queue, against writing and renaming the same bytes.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/Measure.h"
#include "orbiq/private/orbiqAgent/RequestsFile.h"

namespace orbiq::bench {
namespace {

constexpr std::size_t kRepetitions = 301;
constexpr std::array<std::size_t, 4> kDepths{1, 10, 100, 500};

/// As the queue holds them: texts, identity, session and access are shared, authorizations copied.
class Requests {
 public:
  std::shared_ptr<orbiqRequest> next() {
    const std::uint64_t number = _count++;
    const bool isStreaming = number % 2 == 1;
    Parameters parameters{{"n", std::to_string(100'000'000 + number * 104'729)},
                          {"serial", _serial},
                          {"tn", _tagName},
                          {"v", _version},
                          {"did", "6D92078A-8246-4BA4-AE5B-" + std::to_string(number)}};
    if (isStreaming) {
      parameters.emplace("cmsPS", "2");
      parameters.emplace("cmsRK", std::to_string(number));
    }
    auto request =
        std::make_shared<orbiqRequest>(std::make_shared<const Parameters>(std::move(parameters)),
                                       isStreaming ? RequestTypeStreaming : RequestTypeAudience,
                                       SendingModeHost, _serial, isStreaming ? _stream : _audience);
    request->setAuth(_auth->copy());
    return request;
  }

 private:
  std::uint64_t _count = 0;
  const String _serial = "241041208600";
  const String _tagName = "on-ios";
  const String _version = "1.0";
  const std::shared_ptr<orbiqTaggerID> _audience =
      std::make_shared<orbiqTaggerID>(_serial, INTPTR_MAX, false);
  const std::shared_ptr<orbiqTaggerID> _stream = std::make_shared<orbiqTaggerID>(_serial, 3, true);
  const std::shared_ptr<orbiqAuth> _auth = orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
      orbiqSession::orbiqSessionWithSerial_withCmsVI(_serial, "2817404411"),
      orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
          _serial, AccessModeFull, "https://hits.example/audience/collect/"),
      false);
};

std::string_view encode(KeyedArchiver& archiver, const RequestQueue& queue) {
  archiver.beginRootArray();
  for (const auto& request : queue) archiver.addElement(*request);
  return archiver.finish();
}

void writeAndRename(const std::string& path, std::string_view bytes) {
  const std::string temporary = path + ".tmp";
  const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const bool written =
      write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  if (!written || close(file) != 0 || std::rename(temporary.c_str(), path.c_str()) != 0) {
    throw std::runtime_error("cannot write " + path);
  }
}

/// The three ways at one depth, with what they took.
struct Depth {
  explicit Depth(std::size_t size) {
    Requests requests;
    while (queue.size() < size) queue.push_back(requests.next());
    bytes = encode(archiver, queue);
  }

  void encodeOnce() {
    encoding.push_back(microseconds([&] { encode(archiver, queue); }));
  }
  void saveOnce(const std::string& path) {
    saving.push_back(microseconds([&] { file.save(path, queue); }));
  }
  void writeOnce(const std::string& path) {
    writing.push_back(microseconds([&] { writeAndRename(path, bytes); }));
  }
  double perRequest(const std::vector<double>& times) const {
    return median(times) / static_cast<double>(queue.size());
  }

  RequestQueue queue;
  KeyedArchiver archiver;
  std::string bytes;
  RequestsFile file;
  std::vector<double> encoding;
  std::vector<double> saving;
  std::vector<double> writing;
};

std::vector<double> divided(const std::vector<double>& dividends,
                            const std::vector<double>& divisors, double factor = 1) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < dividends.size(); ++i) {
    ratios.push_back(factor * dividends[i] / divisors[i]);
  }
  return ratios;
}

void print(const Depth& depth) {
  std::printf("  %5zu %8zu %10.1f %10.1f %10.1f %10.2f %12.3f %12.3f\n", depth.queue.size(),
              depth.bytes.size(), median(depth.encoding), median(depth.saving),
              median(depth.writing), median(divided(depth.saving, depth.writing)),
              depth.perRequest(depth.saving), depth.perRequest(depth.encoding));
}

void measure(const std::string& directory) {
  std::vector<std::unique_ptr<Depth>> depths;
  depths.reserve(kDepths.size());
  for (const std::size_t size : kDepths) depths.push_back(std::make_unique<Depth>(size));
  for (std::size_t repetition = 0; repetition < kRepetitions; ++repetition) {
    for (const auto& depth : depths) {
      const std::string path = directory + "/depth" + std::to_string(depth->queue.size());
      depth->encodeOnce();
      // Neither side always comes second.
      if (repetition % 2 == 0) depth->saveOnce(path + ".ser");
      depth->writeOnce(path + ".plain");
      if (repetition % 2 == 1) depth->saveOnce(path + ".ser");
    }
  }
  std::printf("saving the queue, in us; medians of %zu repetitions\n", kRepetitions);
  std::printf("  %5s %8s %10s %10s %10s %10s %12s %12s\n", "depth", "bytes", "encode", "save",
              "write", "save/write", "save/request", "enc./request");
  for (const auto& depth : depths) print(*depth);

  const Depth& hundred = *depths[2];
  const Depth& full = *depths[3];
  std::printf("  save / write and rename at depth 500: %s\n",
              ratioText(divided(full.saving, full.writing), {Aim::Kind::kAtMost, 3}).c_str());
  // Linear: a request costs no more in a long queue than in a short one.
  const double fewer =
      static_cast<double>(hundred.queue.size()) / static_cast<double>(full.queue.size());
  const Aim linear{Aim::Kind::kBelow, 1.25};
  std::printf("  save per request, depth 500 / depth 100: %s\n",
              ratioText(divided(full.saving, hundred.saving, fewer), linear).c_str());
  std::printf("  encode per request, depth 500 / depth 100: %s\n",
              ratioText(divided(full.encoding, hundred.encoding, fewer), linear).c_str());
}

}  // namespace
}  // namespace orbiq::bench

int main(int argc, char** argv) {
  return orbiq::bench::runMeasurement(argc, argv, orbiq::bench::measure);
}
