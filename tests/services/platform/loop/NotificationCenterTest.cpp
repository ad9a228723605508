#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "orbiq/services/platform/loop/NotificationCenter.h"

namespace orbiq {
namespace {

NotificationCenter& center() { return NotificationCenter::defaultCenter(); }

TEST(NotificationCenterTest, TellsByNameInOrderOnThePostingThread) {
  const int first = 0;
  const int second = 0;
  const auto sender = std::make_shared<Object>();
  const auto poster = std::this_thread::get_id();
  std::string told;
  const auto tell = [&](char mark) {
    return [&, mark](const Notification& notification) {
      EXPECT_EQ(notification.object, sender);
      EXPECT_EQ(std::this_thread::get_id(), poster);
      told += mark;
      throw std::runtime_error("ends with its call");
    };
  };
  // What a call holds uses the centre once more when it goes.
  std::shared_ptr<void> last(nullptr, [&](void*) { center().removeObserver(&told, "name"); });
  center().addObserver(&second, "name", tell('b'));
  center().addObserver(&second, "other", tell('o'));
  center().addObserver(&first, "name", [&, change = tell('a')](const Notification& notification) {
    center().removeObserver(&first, "name");
    center().removeObserver(&second, "name");
    center().addObserver(&first, "name", tell('d'));
    change(notification);
  });
  center().addObserver(&second, "name", [last, never = tell('c')](const auto& it) { never(it); });
  last.reset();
  for (const char* name : {"name", "name", "other"}) center().postNotificationName(name, sender);
  EXPECT_EQ(told, "bado");
}

TEST(NotificationCenterTest, WhoIsRemovedWithinItsCallIsNotCalledAgain) {
  const int remover = 0;
  int calls = 0;
  center().addObserver(&remover, "name", [&](const auto&) {
    if (calls > 0) center().removeObserver(&calls, "name");
  });
  center().addObserver(&calls, "name", [&](const auto&) {
    if (++calls == 1) center().postNotificationName("name");
  });
  center().postNotificationName("name");
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace orbiq
