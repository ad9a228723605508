#include <orbiq/orbiq.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "examples/host-loop/Application.h"

/// An epoll application takes the library's main loop into its own: timers and notifications come
/// on its main thread.
///
///     orbiq-host-loop-epoll [SECONDS]
///
/// Ends when a timer has fired, the network has changed and the application has come back to the
/// foreground: with 0 if all of it came on the main thread, with 1 if not, or not in time.
int main(int argc, char** argv) {
  const int patience = (argc > 1 ? std::atoi(argv[1]) : 30) * 1000;
  // The library's loop is one source of the application's. From here on its timers and
  // notifications come in runPending() alone.
  const int loop = epoll_create1(EPOLL_CLOEXEC);
  const int library = orbiq::MainLoop::mainLoop().adopt();
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = library;
  if (epoll_ctl(loop, EPOLL_CTL_ADD, library, &event) != 0) {
    std::cerr << "the loops cannot be set up\n";
    return 1;
  }

  const auto application = Application::start();

  while (!application->hasAll()) {
    const int ready = epoll_wait(loop, &event, 1, patience);
    if (ready == 0) break;
    if (ready == 1 && event.data.fd == library) orbiq::MainLoop::mainLoop().runPending();
  }
  close(loop);  // the library's descriptor stays open
  return application->end();
}
