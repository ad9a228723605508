#include <glib-unix.h>
#include <orbiq/orbiq.h>

#include <cstdlib>
#include <iostream>

#include "examples/host-loop/Application.h"

/// A GLib application takes the library's main loop into its own: timers and notifications come
/// on its main thread.
///
///     orbiq-host-loop-glib [SECONDS]
///
/// Ends when a timer has fired, the network has changed and the application has come back to the
/// foreground: with 0 if all of it came on the main thread, with 1 if not, or not in time (30 s).
namespace {

gboolean runLibrary(gint, GIOCondition, gpointer) {
  orbiq::MainLoop::mainLoop().runPending();
  return G_SOURCE_CONTINUE;
}

gboolean endPatience(gpointer isPatient) {
  *static_cast<bool*>(isPatient) = false;
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  // The library's loop is one source of the application's. From here on its timers and
  // notifications come in runPending() alone.
  const int library = orbiq::MainLoop::mainLoop().adopt();
  if (library < 0) {
    std::cerr << "the library's loop cannot be set up\n";
    return 1;
  }
  g_unix_fd_add(library, G_IO_IN, runLibrary, nullptr);

  const auto application = Application::start();

  bool isPatient = true;
  g_timeout_add_seconds(argc > 1 ? static_cast<guint>(std::atoi(argv[1])) : 30, endPatience,
                        &isPatient);
  while (isPatient && !application->hasAll()) g_main_context_iteration(nullptr, TRUE);
  return application->end();
}
