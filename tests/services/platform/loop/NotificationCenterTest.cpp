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
  center().addObserver(&second, "name", tell('b'));
  center().addObserver(&first, "name", tell('a'));
  center().addObserver(&second, "name", tell('c'));
  center().addObserver(&second, "other", tell('o'));
  center().postNotificationName("name", sender);
  center().removeObserver(&second, "name");
  center().postNotificationName("name", sender);
  center().postNotificationName("other", sender);
  EXPECT_EQ(told, "bacao");
}

TEST(NotificationCenterTest, ObserversMayChangeWithinACall) {
  const int first = 0;
  const int second = 0;
  std::string told;
  // What a call holds uses the centre once more when it goes.
  std::shared_ptr<void> last(nullptr, [&](void*) { center().removeObserver(&told, "changing"); });
  center().addObserver(&first, "changing", [&](const Notification&) {
    told += '1';
    center().removeObserver(&first, "changing");
    center().removeObserver(&second, "changing");
    center().addObserver(&first, "changing", [&](const Notification&) { told += '3'; });
  });
  center().addObserver(&second, "changing", [&, last](const Notification&) { told += '2'; });
  last.reset();
  center().postNotificationName("changing");
  EXPECT_EQ(told, "1");
  center().postNotificationName("changing");
  EXPECT_EQ(told, "13");
}

}  // namespace
}  // namespace orbiq
