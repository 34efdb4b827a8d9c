#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "vxproxy/messages.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr UINT kBlockedMessage = 0x8001;

TEST(WindowQueue, PostedMessagesArriveInOrder) {
  HWND window = os::CreateWindowQueue();
  ASSERT_NE(nullptr, window);
  ASSERT_TRUE(os::PostMessageA(window, kBlockedMessage, 1, 0));
  ASSERT_TRUE(os::PostMessageA(window, kBlockedMessage + 1, 2, -3));

  MSG msg{};
  ASSERT_TRUE(os::WaitMessage(window, &msg, 0));
  EXPECT_EQ(window, msg.hwnd);
  EXPECT_EQ(kBlockedMessage, msg.message);
  EXPECT_EQ(1u, msg.wParam);
  EXPECT_EQ(0, msg.lParam);
  ASSERT_TRUE(os::WaitMessage(window, &msg, 0));
  EXPECT_EQ(kBlockedMessage + 1, msg.message);
  EXPECT_EQ(-3, msg.lParam);
  os::DestroyWindowQueue(window);
}

TEST(WindowQueue, WaitTimesOutWhenEmptyAndWakesOnPost) {
  HWND window = os::CreateWindowQueue();
  MSG msg{};
  const auto start = Clock::now();
  EXPECT_FALSE(os::WaitMessage(window, &msg, 100));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(95));

  auto waiter = std::async(std::launch::async, [window] {
    MSG got{};
    return os::WaitMessage(window, &got, 5000) ? got.message : 0u;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_TRUE(os::PostMessageA(window, kBlockedMessage, 1, 0));
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(2)));
  EXPECT_EQ(kBlockedMessage, waiter.get());
  os::DestroyWindowQueue(window);
}

TEST(WindowQueue, DestroyedWindowRefusesPostsAndEndsWaits) {
  HWND window = os::CreateWindowQueue();
  auto waiter = std::async(std::launch::async, [window] {
    MSG got{};
    return os::WaitMessage(window, &got, -1);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  os::DestroyWindowQueue(window);
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(2)));
  EXPECT_FALSE(waiter.get());
  EXPECT_FALSE(os::PostMessageA(window, kBlockedMessage, 1, 0));
  EXPECT_FALSE(os::PostMessageA(nullptr, kBlockedMessage, 1, 0));
  // A new window never gets the handle of a destroyed one.
  HWND next = os::CreateWindowQueue();
  EXPECT_NE(window, next);
  os::DestroyWindowQueue(next);
}

TEST(ThreadQueue, PostingNeedsTheThreadToHaveAQueue) {
  std::promise<DWORD> id;
  std::promise<void> queueMade;
  std::promise<void> go;
  std::shared_future<void> goSignal = go.get_future().share();
  auto receiver = std::async(std::launch::async, [&] {
    id.set_value(os::GetCurrentThreadId());
    goSignal.wait();
    os::CreateThreadQueue();
    queueMade.set_value();
    MSG got{};
    const bool ok = os::WaitMessage(nullptr, &got, 5000);
    return ok && got.hwnd == nullptr && got.message == kBlockedMessage && got.wParam == 1 ? 1 : 0;
  });
  const DWORD target = id.get_future().get();
  EXPECT_NE(os::GetCurrentThreadId(), target);
  EXPECT_FALSE(os::PostThreadMessageA(target, kBlockedMessage, 1, 0));
  go.set_value();
  queueMade.get_future().wait();
  EXPECT_TRUE(os::PostThreadMessageA(target, kBlockedMessage, 1, 0));
  EXPECT_EQ(1, receiver.get());
}

TEST(ThreadQueue, EndedThreadLosesItsQueue) {
  DWORD ended = 0;
  std::thread([&ended] {
    os::CreateThreadQueue();
    ended = os::GetCurrentThreadId();
  }).join();
  EXPECT_FALSE(os::PostThreadMessageA(ended, kBlockedMessage, 1, 0));
  EXPECT_FALSE(os::PostThreadMessageA(0, kBlockedMessage, 1, 0));
}

TEST(ThreadQueue, OwnQueueTimesOut) {
  std::thread([] {
    MSG got{};
    EXPECT_FALSE(os::WaitMessage(nullptr, &got, 0));  // no queue yet
    os::CreateThreadQueue();
    ASSERT_TRUE(os::PostThreadMessageA(os::GetCurrentThreadId(), kBlockedMessage, 7, 0));
    ASSERT_TRUE(os::WaitMessage(nullptr, &got, 0));
    EXPECT_EQ(7u, got.wParam);
    EXPECT_FALSE(os::WaitMessage(nullptr, &got, 30));
  }).join();
}

}  // namespace
