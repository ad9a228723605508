// Writes the queue that docs/requests-file.md shows to the file named by the argument.
#include <iostream>
#include <memory>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: " << argv[0] << " FILE\n";
    return 2;
  }
  const orbiq::String serial = "ABC";
  const auto request = std::make_shared<orbiqRequest>(
      std::make_shared<const orbiq::Parameters>(orbiq::Parameters{{"n", "123456789"}}),
      orbiq::RequestTypeStreaming, orbiq::SendingModeHost, serial,
      std::make_shared<orbiqTaggerID>(serial, 7, true));
  request->setCreationDate(orbiq::Date::sinceReferenceDate(800000000.5));
  orbiq::RequestsFile(argv[1]).save({request, std::make_shared<orbiqClearCache>()});
}
