#include "orbiq/services/platform/loop/LoopDescriptors.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace orbiq {
namespace {

bool addTo(int set, int descriptor, std::uint64_t key) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = key;
  if (epoll_ctl(set, EPOLL_CTL_ADD, descriptor, &event) == 0) return true;
  return errno == EEXIST && epoll_ctl(set, EPOLL_CTL_MOD, descriptor, &event) == 0;
}

}  // namespace

bool LoopDescriptors::open() {
  if (areOpen()) return true;
  Descriptor set(epoll_create1(EPOLL_CLOEXEC));
  Descriptor event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  Descriptor alarm(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  for (const Descriptor* each : {&event, &alarm}) {
    const auto key = static_cast<std::uint64_t>(each->number());
    if (!each->isOpen() || !addTo(set.number(), each->number(), key)) return false;
  }
  _set.swap(set);
  _event.swap(event);
  _alarm.swap(alarm);
  return true;
}

void LoopDescriptors::raise(bool wanted) {
  if (wanted == _isRaised) return;
  // Neither can fail: the counter goes from 0 to 1 and back.
  std::uint64_t count = 1;
  [[maybe_unused]] const ssize_t moved = wanted ? ::write(_event.number(), &count, sizeof count)
                                                : ::read(_event.number(), &count, sizeof count);
  _isRaised = wanted;
}

void LoopDescriptors::setAlarm(std::chrono::nanoseconds time) {
  if (time == _alarmTime) return;
  itimerspec setting{};
  if (time != time.max()) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    setting.it_value.tv_sec = static_cast<time_t>(seconds.count());
    setting.it_value.tv_nsec = static_cast<long>((time - seconds).count());
  }
  timerfd_settime(_alarm.number(), TFD_TIMER_ABSTIME, &setting, nullptr);
  _alarmTime = time;
}

bool LoopDescriptors::add(int descriptor, std::uint64_t key) {
  return addTo(_set.number(), descriptor, key) || (errno != ENOMEM && errno != ENOSPC);
}

void LoopDescriptors::remove(int descriptor) {
  epoll_ctl(_set.number(), EPOLL_CTL_DEL, descriptor, nullptr);
}

}  // namespace orbiq
