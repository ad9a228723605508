// Any bytes as a file to inspect: what is shown is harmless to a terminal, in proportion to the
// bytes, and the same as what an application would load.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "tools/requests/Json.h"
#include "tools/requests/RequestsArchive.h"
#include "tools/requests/Table.h"

namespace {

using orbiq::requests::Request;
using orbiq::requests::RequestsArchive;

constexpr const orbiq::ArchivedClass* kClasses[] = {&orbiqRequest::kArchivedClass,
                                                    &orbiqClearCache::kArchivedClass};

void require(bool holds) {
  if (!holds) std::abort();
}

void compare(const Request& shown, const orbiqRequest& loaded) {
  if (dynamic_cast<const orbiqClearCache*>(&loaded) != nullptr) {
    require(shown.kind == Request::Kind::kMarker);
    return;
  }
  require(shown.kind == (loaded.requestType() == orbiq::RequestTypeAudience
                             ? Request::Kind::kAudience
                             : Request::Kind::kStreaming));
  require(shown.serial.has_value() != loaded.serial().isNull());
  if (shown.serial) require(*shown.serial == loaded.serial().view());
  require(shown.createdAt.has_value() == loaded.creationDate().has_value());
  require(shown.numberOfFails == loaded.numberOfFails());
  require(shown.hasAuthorization == (loaded.auth() != nullptr));
  // Of parameters that the application would not take, the rest is shown.
  require(shown.parameters.has_value() || loaded.parameters() == nullptr);
  if (const auto url = loaded.url(); url && shown.access && shown.target()) {
    require(*shown.target() == url->text());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  RequestsArchive archive(bytes);
  require(archive.isLoadable() || !archive.faults().isEmpty());

  std::ostringstream table;
  orbiq::requests::printTable(table, "file", {}, archive, {.isWide = true});
  for (const char character : table.str()) {
    const auto code = static_cast<unsigned char>(character);
    require((code >= 0x20 || code == '\n') && code != 0x7F);
  }
  const auto loaded = orbiq::KeyedUnarchiver::unarchiveArray(bytes, kClasses);
  require(loaded.has_value() == archive.isLoadable());
  if (loaded && archive.reader()->spend(0)) {
    require(loaded->size() == archive.requests().size());
    for (std::size_t i = 0; i < loaded->size(); ++i) {
      compare(archive.requests()[i], static_cast<const orbiqRequest&>(*loaded->at(i)));
    }
  }
  std::ostringstream out;
  orbiq::requests::printJson(out, "file", {}, archive, true);
  const std::string json = out.str();
  require(nlohmann::json::accept(json));
  require(json.size() < 4096 * (size + 4096));
  return 0;
}
