#include <orbiq/orbiq.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>
#include <chrono>
#include <cstdlib>
#include <iostream>

#include "examples/host-loop/Application.h"

/// A Qt application takes the library's main loop into its own: timers and notifications come
/// on its main thread.
///
///     orbiq-host-loop-qt [SECONDS]
///
/// Ends when a timer has fired, the network has changed and the application has come back to the
/// foreground: with 0 if all of it came on the main thread, with 1 if not, or not in time (30 s).
int main(int argc, char** argv) {
  const QCoreApplication loop(argc, argv);
  // The library's loop is one source of the application's. From here on its timers and
  // notifications come in runPending() alone.
  const int library = orbiq::MainLoop::mainLoop().adopt();
  if (library < 0) {
    std::cerr << "the library's loop cannot be set up\n";
    return 1;
  }
  const QSocketNotifier notifier(library, QSocketNotifier::Read);

  const auto application = Application::start();

  QObject::connect(&notifier, &QSocketNotifier::activated, [&] {
    orbiq::MainLoop::mainLoop().runPending();
    if (application->hasAll()) QCoreApplication::quit();
  });
  QTimer::singleShot(std::chrono::seconds(argc > 1 ? std::atoi(argv[1]) : 30),
                     &QCoreApplication::quit);
  QCoreApplication::exec();
  return application->end();
}
