// Unloads the plugin that the first argument names as soon as it is told to, and ends with 7.
#include <dlfcn.h>

#include <cstdio>

int main(int, char** argv) {
  void* const plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  const auto countHits = reinterpret_cast<void (*)(const char*)>(dlsym(plugin, "countHits"));
  countHits(argv[2]);
  if (std::getchar() == EOF) return 1;
  if (dlclose(plugin) != 0) return 1;
  std::puts("unloaded");
  std::fflush(stdout);
  if (std::getchar() == EOF) return 1;
  return 7;
}
