// libcurl, as the process has it once.
#include "orbiq/services/platform/http/LibcurlProcess.h"

#include <curl/curl.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "orbiq/services/platform/base/UntilDone.h"
#include "orbiq/services/platform/http/HttpClient.h"
#include "orbiq/services/platform/http/TransferStay.h"

namespace orbiq {
namespace {

thread_local constinit bool memoryRanOut = false;

template <class Memory>
Memory* noted(Memory* memory) {
  if (memory == nullptr) memoryRanOut = true;
  return memory;
}

/// With the C library's memory, but for the note. Where the host has initialised libcurl before,
/// its choice stays.
CURLcode initialise() {
  return curl_global_init_mem(
      CURL_GLOBAL_DEFAULT, [](std::size_t size) { return noted(std::malloc(size)); }, std::free,
      [](void* old, std::size_t size) { return noted(std::realloc(old, size)); },
      [](const char* text) { return noted(strdup(text)); },
      [](std::size_t count, std::size_t size) { return noted(std::calloc(count, size)); });
}

}  // namespace

bool& libcurlRanOutOfMemory() noexcept { return memoryRanOut; }

bool prepareHttpForProcess() {
  return untilDone([] { return initialise() == CURLE_OK && installExitHandler(); });
}

}  // namespace orbiq
