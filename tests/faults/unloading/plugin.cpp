// Part of an application that is loaded and unloaded while it runs, and alone uses the library.
#include <orbiq/orbiq.h>

extern "C" __attribute__((visibility("default"))) void countHits(const char* server) {
  orbiq::HostApplication::describe(
      {.bundleIdentifier = "tv.example.plugin", .authorizationServer = server});
  const auto tagger = orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("ABC");
  for (int i = 0; i < 50; ++i) tagger->sendHit();
}
