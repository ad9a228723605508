#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>

#include "orbiq/private/orbiqAgent/RequestsFile.h"
#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"

namespace orbiq::test {
namespace {

KeyedArchiver::Bytes archive(const RequestQueue& queue, KeyedArchiver& archiver) {
  archiver.beginRootArray();
  for (const auto& request : queue) archiver.addElement(*request);
  return archiver.finish();
}

/// An account: what its requests share, and what some of them do not.
struct Account {
  explicit Account(int number)
      : serial("24104120860" + std::to_string(number)),
        identity(std::make_shared<orbiqTaggerID>(serial, number, number % 2 == 0)),
        access(orbiqAccess::orbiqAccessWithSerial_withAccessMode_withBaseURL(
            serial, AccessModeFull, "https://hits.example/" + std::to_string(number) + "/")),
        authorization(orbiqAuth::orbiqAuthWithSession_withAccess_andIsDefault(
            orbiqSession::orbiqSessionWithSerial_withCmsVI(serial, "28174044"), access, false)) {}

  std::shared_ptr<orbiqRequest> request(std::mt19937& random) const {
    Parameters parameters{{"n", std::to_string(random())}, {"serial", serial}, {"v", "1.0"}};
    if (random() % 8 == 0) parameters.emplace("own key", "caf\xC3\xA9");
    if (random() % 2 == 0) parameters.emplace("cmsRK", std::to_string(random() % 100));
    auto request =
        std::make_shared<orbiqRequest>(std::make_shared<Parameters>(std::move(parameters)),
                                       RequestTypeStreaming, SendingModeHost, serial, identity);
    if (random() % 4 != 0) {
      request->setAuth(random() % 4 == 0 ? authorization : authorization->copy());
    }
    return request;
  }

  String serial;
  std::shared_ptr<orbiqTaggerID> identity;
  std::shared_ptr<orbiqAccess> access;
  std::shared_ptr<orbiqAuth> authorization;
};

/// Does with a queue what an agent does with it, and what else a caller could.
class Traffic {
 public:
  RequestQueue queue;

  void goOn() {
    const auto what = _random() % 100;
    Account& account = _accounts[_random() % (what % 3 == 0 ? _accounts.size() : 1)];
    if (what < 45 || queue.empty()) {
      queue.push_back(account.request(_random));
    } else if (what < 75) {
      queue.pop_front();
    } else if (what < 80) {
      queue.push_back(account.request(_random));
      queue.pop_front();
    } else if (what < 84) {
      queue.front()->setStatus(RequestStatusFailed);
    } else if (what < 88) {
      queue.back()->setAuth(account.authorization);
    } else if (what < 90) {
      queue[_random() % queue.size()]->setAuth(nullptr);
    } else if (what < 92) {
      account.access->hitSuccessfullySent();
    } else if (what < 94) {
      account = Account(static_cast<int>(_random() % 10));
    } else if (what < 96) {
      queue.push_back(std::make_shared<orbiqClearCache>());
    } else if (what < 98) {
      account.identity->setPartialID(static_cast<std::intptr_t>(_random() % 5));
    } else if (what < 99) {
      queue.push_back(queue[_random() % queue.size()]);
    } else {
      std::erase_if(queue, [&](const auto&) { return _random() % 2 == 0; });
    }
  }

 private:
  std::mt19937 _random{20261125};
  std::array<Account, 4> _accounts{Account(0), Account(1), Account(2), Account(3)};
};

TEST(RequestArchiver, WhatItHasKeptDoesNotShow) {
  constexpr std::array kClasses{&orbiqRequest::kArchivedClass, &orbiqClearCache::kArchivedClass};
  Traffic traffic;
  KeyedArchiver archiver = requestArchiver();
  std::string last;
  std::size_t longest = 0;
  for (int step = 0; step < 3000; ++step) {
    traffic.goOn();
    longest = std::max(longest, traffic.queue.size());
    const KeyedArchiver::Bytes bytes = archive(traffic.queue, archiver);
    KeyedArchiver fresh = requestArchiver();
    ASSERT_EQ(bytes.all, archive(traffic.queue, fresh).all) << step;
    ASSERT_EQ(bytes.all.substr(0, bytes.kept), last.substr(0, bytes.kept)) << step;
    last = bytes.all;
    if (step % 50 == 49) archiver.forget();
    if (step % 100 != 0) continue;
    const auto read = KeyedUnarchiver::unarchiveArray(last, kClasses);
    ASSERT_TRUE(read && read->size() == traffic.queue.size()) << step;
    for (std::size_t i = 0; i < read->size(); ++i) {
      ASSERT_EQ(read->at(i)->description(), traffic.queue[i]->description()) << step;
    }
  }
  EXPECT_GT(longest, 20U);
}

}  // namespace
}  // namespace orbiq::test
