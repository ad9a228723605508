#include "tools/collector/ConnectionThreads.h"

#include <sys/resource.h>

#include <system_error>

namespace orbiq::collector {

ConnectionThreads::Enqueued ConnectionThreads::enqueue(std::function<void()> job) {
  const Lock lock(_condition);
  _jobs.push_back(std::move(job));
  if (_jobs.size() > _free) startThread();
  _condition.signal();
  return Enqueued(true);
}

void ConnectionThreads::startThread() {
  try {
    _threads.emplace_back([this] { work(); });
    ++_free;
  } catch (const std::system_error&) {
    // The job waits for a thread that becomes free.
  }
}

void ConnectionThreads::work() {
  for (;;) {
    std::function<void()> job;
    {
      const Lock lock(_condition);
      while (_jobs.empty() && !_closed) _condition.wait();
      if (_jobs.empty()) return;
      job = std::move(_jobs.front());
      _jobs.pop_front();
      --_free;
    }
    job();
    const Lock lock(_condition);
    ++_free;
  }
}

void ConnectionThreads::shutdown() {
  std::vector<std::thread> ending;
  {
    const Lock lock(_condition);
    _closed = true;
    _condition.broadcast();
    ending.swap(_threads);
  }
  for (std::thread& thread : ending) thread.join();
}

void raiseConnectionLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace orbiq::collector
