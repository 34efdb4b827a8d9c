#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "platform/platform.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string UniqueName(const char* what) {
  static std::atomic<int> counter{0};
  return std::string("vxtest-") + what + "-" +
         std::to_string(Clock::now().time_since_epoch().count()) + "-" +
         std::to_string(counter.fetch_add(1));
}

TEST(NamedSemaphore, SecondHandleOfSameNameWaitsOtherNamesDoNot) {
  const std::string name = UniqueName("pair");
  os::NamedSemaphore* first = os::OpenNamedSemaphore(name.c_str());
  os::NamedSemaphore* second = os::OpenNamedSemaphore(name.c_str());
  // Separators in a name are no path: these two are different semaphores.
  os::NamedSemaphore* slash = os::OpenNamedSemaphore((name + "/a").c_str());
  os::NamedSemaphore* backslash = os::OpenNamedSemaphore((name + "\\a").c_str());
  ASSERT_TRUE(first && second && slash && backslash);

  ASSERT_TRUE(os::AcquireNamedSemaphore(first, 0));
  const auto start = Clock::now();
  EXPECT_FALSE(os::AcquireNamedSemaphore(second, 150));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(140));
  ASSERT_TRUE(os::AcquireNamedSemaphore(slash, 0));
  EXPECT_TRUE(os::AcquireNamedSemaphore(backslash, 0));

  // Another thread may give the unit back; giving back what is not held
  // changes nothing.
  std::thread([first] { os::ReleaseNamedSemaphore(first); }).join();
  os::ReleaseNamedSemaphore(first);
  EXPECT_TRUE(os::AcquireNamedSemaphore(second, 1000));
  EXPECT_FALSE(os::AcquireNamedSemaphore(first, 20));
  for (os::NamedSemaphore* s : {second, slash, backslash}) os::ReleaseNamedSemaphore(s);
  for (os::NamedSemaphore* s : {first, second, slash, backslash}) os::CloseNamedSemaphore(s);
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
