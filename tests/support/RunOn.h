#pragma once

#include <future>

#include "orbiq/services/platform/loop/SerialQueue.h"

namespace orbiq::test {

/// Returns when the task has run, and with it all that the queue was given before.
template <class Task>
void runOn(SerialQueue& queue, const Task& task) {
  std::promise<void> done;
  queue.async([&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

}  // namespace orbiq::test
