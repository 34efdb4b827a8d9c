#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string UniqueName(const char* what) {
  static std::atomic<int> counter{0};
  return std::string("vxtest-") + what + "-" +
         std::to_string(Clock::now().time_since_epoch().count()) + "-" +
         std::to_string(counter.fetch_add(1));
}

TEST(NamedSemaphore, SecondHandleOfSameNameWaitsForTheUnit) {
  const std::string name = UniqueName("pair");
  os::NamedSemaphore* first = os::OpenNamedSemaphore(name.c_str());
  os::NamedSemaphore* second = os::OpenNamedSemaphore(name.c_str());
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);

  ASSERT_TRUE(os::AcquireNamedSemaphore(first, 0));
  const auto start = Clock::now();
  EXPECT_FALSE(os::AcquireNamedSemaphore(second, 150));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(140));

  os::ReleaseNamedSemaphore(first);
  EXPECT_TRUE(os::AcquireNamedSemaphore(second, 1000));
  os::ReleaseNamedSemaphore(second);
  os::CloseNamedSemaphore(first);
  os::CloseNamedSemaphore(second);
}

TEST(NamedSemaphore, OtherNamesAreIndependent) {
  const std::string base = UniqueName("indep");
  os::NamedSemaphore* a = os::OpenNamedSemaphore((base + "/a").c_str());
  os::NamedSemaphore* b = os::OpenNamedSemaphore((base + "\\a").c_str());
  ASSERT_NE(nullptr, a);
  ASSERT_NE(nullptr, b);
  ASSERT_TRUE(os::AcquireNamedSemaphore(a, 0));
  EXPECT_TRUE(os::AcquireNamedSemaphore(b, 0));
  os::ReleaseNamedSemaphore(a);
  os::ReleaseNamedSemaphore(b);
  os::CloseNamedSemaphore(a);
  os::CloseNamedSemaphore(b);
}

TEST(NamedSemaphore, ThreadsSharingOneHandleExcludeEachOther) {
  const std::string name = UniqueName("threads");
  os::NamedSemaphore* sem = os::OpenNamedSemaphore(name.c_str());
  ASSERT_NE(nullptr, sem);
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  int counter = 0;  // guarded by the semaphore alone
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(os::AcquireNamedSemaphore(sem, -1));
        if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
        ++counter;
        inside.fetch_sub(1);
        os::ReleaseNamedSemaphore(sem);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, overlaps.load());
  EXPECT_EQ(800, counter);
  os::CloseNamedSemaphore(sem);
}

TEST(NamedSemaphore, UnitCanBeGivenBackByAnotherThread) {
  const std::string name = UniqueName("handover");
  os::NamedSemaphore* sem = os::OpenNamedSemaphore(name.c_str());
  ASSERT_NE(nullptr, sem);
  ASSERT_TRUE(os::AcquireNamedSemaphore(sem, 0));
  std::thread([sem] { os::ReleaseNamedSemaphore(sem); }).join();
  EXPECT_TRUE(os::AcquireNamedSemaphore(sem, 0));
  // Giving back what is not held changes nothing.
  os::ReleaseNamedSemaphore(sem);
  os::ReleaseNamedSemaphore(sem);
  EXPECT_TRUE(os::AcquireNamedSemaphore(sem, 0));
  EXPECT_FALSE(os::AcquireNamedSemaphore(sem, 20));
  os::ReleaseNamedSemaphore(sem);
  os::CloseNamedSemaphore(sem);
}

TEST(NamedSemaphore, ReopenedAfterLastCloseStillExcludes) {
  // The last user removes the backing file; users that come later must
  // still meet on one unit.
  const std::string name = UniqueName("reopen");
  for (int round = 0; round < 3; ++round) {
    os::NamedSemaphore* a = os::OpenNamedSemaphore(name.c_str());
    ASSERT_TRUE(os::AcquireNamedSemaphore(a, 0));
    os::ReleaseNamedSemaphore(a);
    os::NamedSemaphore* b = os::OpenNamedSemaphore(name.c_str());
    os::CloseNamedSemaphore(a);
    os::NamedSemaphore* c = os::OpenNamedSemaphore(name.c_str());
    ASSERT_TRUE(os::AcquireNamedSemaphore(b, 0));
    EXPECT_FALSE(os::AcquireNamedSemaphore(c, 0));
    os::ReleaseNamedSemaphore(b);
    EXPECT_TRUE(os::AcquireNamedSemaphore(c, 0));
    os::ReleaseNamedSemaphore(c);
    os::CloseNamedSemaphore(b);
    os::CloseNamedSemaphore(c);
  }
}

}  // namespace
