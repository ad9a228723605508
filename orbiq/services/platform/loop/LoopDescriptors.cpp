#include "orbiq/services/platform/loop/LoopDescriptors.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "orbiq/services/platform/files/Descriptor.h"

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
  const int set = aboveStandard(epoll_create1(EPOLL_CLOEXEC));
  const int event = aboveStandard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  const int alarm = aboveStandard(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  const bool isComplete = set >= 0 && event >= 0 && alarm >= 0 &&
                          addTo(set, event, static_cast<std::uint64_t>(event)) &&
                          addTo(set, alarm, static_cast<std::uint64_t>(alarm));
  if (!isComplete) {
    for (const int descriptor : {set, event, alarm}) {
      if (descriptor >= 0) close(descriptor);
    }
    return false;
  }
  _set = set;
  _event = event;
  _alarm = alarm;
  return true;
}

void LoopDescriptors::raise(bool wanted) {
  if (wanted == _isRaised) return;
  // Neither can fail: the counter goes from 0 to 1 and back.
  std::uint64_t count = 1;
  [[maybe_unused]] const ssize_t moved =
      wanted ? write(_event, &count, sizeof count) : read(_event, &count, sizeof count);
  _isRaised = wanted;
}

void LoopDescriptors::setAlarm(std::chrono::nanoseconds time) {
  if (time == _alarmTime) return;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  itimerspec setting{};
  setting.it_value.tv_sec = static_cast<time_t>(seconds.count());
  setting.it_value.tv_nsec = static_cast<long>((time - seconds).count());
  timerfd_settime(_alarm, TFD_TIMER_ABSTIME, &setting, nullptr);
  _alarmTime = time;
}

bool LoopDescriptors::add(int descriptor, std::uint64_t key) {
  return addTo(_set, descriptor, key) || (errno != ENOMEM && errno != ENOSPC);
}

void LoopDescriptors::remove(int descriptor) {
  epoll_ctl(_set, EPOLL_CTL_DEL, descriptor, nullptr);
}

}  // namespace orbiq
