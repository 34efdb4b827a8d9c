#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "platform/winnames.h"

namespace {

constexpr UINT kBlockedMessage = 0x8001;

// A waiter woken by posts from other threads and released when the window
// goes is what Session.EachBlockNotifiesAWaitingHostOnceAndAPassNever does.
TEST(WindowQueue, PostsArriveInOrderAndEndWithTheWindow) {
  HWND window = os::CreateWindowQueue();
  ASSERT_NE(nullptr, window);
  ASSERT_TRUE(os::PostMessageA(window, kBlockedMessage, 1, 0));
  ASSERT_TRUE(os::PostMessageA(window, kBlockedMessage + 1, 2, -3));
  MSG msg{};
  ASSERT_TRUE(os::WaitMessage(window, &msg, 0));
  EXPECT_EQ(window, msg.hwnd);
  EXPECT_EQ(kBlockedMessage, msg.message);
  EXPECT_EQ(1u, msg.wParam);
  ASSERT_TRUE(os::WaitMessage(window, &msg, 0));
  EXPECT_EQ(kBlockedMessage + 1, msg.message);
  EXPECT_EQ(-3, msg.lParam);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os::WaitMessage(window, &msg, 100));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(95));
  os::DestroyWindowQueue(window);
  EXPECT_FALSE(os::PostMessageA(window, kBlockedMessage, 1, 0));
  // A new window never gets the handle of a destroyed one.
  HWND next = os::CreateWindowQueue();
  EXPECT_NE(window, next);
  os::DestroyWindowQueue(next);
}

TEST(ThreadQueue, PostingNeedsTheThreadToHaveAQueueUntilItEnds) {
  std::promise<DWORD> id;
  std::promise<void> go;
  std::promise<void> queueMade;
  bool received = false;
  std::thread receiver([&] {
    MSG got{};
    const bool waitedWithoutQueue = os::WaitMessage(nullptr, &got, 0);
    id.set_value(os::GetCurrentThreadId());
    go.get_future().wait();
    os::CreateThreadQueue();
    queueMade.set_value();
    received = !waitedWithoutQueue && os::WaitMessage(nullptr, &got, 5000) && got.hwnd == nullptr &&
               got.message == kBlockedMessage && got.wParam == 1 && !os::WaitMessage(nullptr, &got, 30);
  });
  const DWORD target = id.get_future().get();
  EXPECT_FALSE(os::PostThreadMessageA(target, kBlockedMessage, 1, 0));
  go.set_value();
  queueMade.get_future().wait();
  EXPECT_TRUE(os::PostThreadMessageA(target, kBlockedMessage, 1, 0));
  receiver.join();
  EXPECT_TRUE(received);
  EXPECT_FALSE(os::PostThreadMessageA(target, kBlockedMessage, 1, 0));
}

}  // namespace
