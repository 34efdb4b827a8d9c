#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "log/logmanager.h"
#include "support/vtable.h"
#include "vxproxy/log.h"

namespace {

// Each table lists the operations in slot order from slot 1 on.
void ExpectSlots(const std::vector<std::ptrdiff_t>& slots) {
  for (std::size_t i = 0; i < slots.size(); ++i) {
    EXPECT_EQ(slots[i], VtableIndexOfSlot(static_cast<int>(i) + 1)) << "slot " << i + 1;
  }
}

TEST(LogSlots, SinkOrderMatchesTheHostTable) {
  using L = CLog;
  ExpectSlots({
      VtableIndex(&L::Printf), VtableIndex(&L::Write),
      VtableIndex(static_cast<bool (L::*)()>(&L::IsOpen)), VtableIndex(&L::IsLevelEnabled),
      VtableIndex(static_cast<L& (L::*)(L& (*)(L&))>(&L::operator<<)),
      VtableIndex(static_cast<L& (L::*)(unsigned long)>(&L::operator<<)),
      VtableIndex(static_cast<L& (L::*)(unsigned short)>(&L::operator<<)),
      VtableIndex(static_cast<L& (L::*)(int)>(&L::operator<<)),
      VtableIndex(static_cast<L& (L::*)(const char*)>(&L::operator<<)),
      VtableIndex(static_cast<bool (L::*)() const>(&L::IsOpen)), VtableIndex(&L::SetLevel),
      VtableIndex(&L::SetLevelMask), VtableIndex(&L::GetLevelMask),
      VtableIndex(&L::SetFlushThreshold), VtableIndex(&L::ReadAll), VtableIndex(&L::Flush),
      VtableIndex(&L::Clear), VtableIndex(&L::SetEnabled), VtableIndex(&L::IsEnabled),
      VtableIndex(&L::SetMaxSize), VtableIndex(&L::GetMaxSize), VtableIndex(&L::Open),
      VtableIndex(&L::GetFileName), VtableIndex(&L::WriteBuffer)
  });
}

TEST(LogSlots, ManagerAndMemoryLogOrder) {
  using G = CLogManager;
  ExpectSlots({VtableIndex(&G::CreateLog), VtableIndex(&G::GetLog), VtableIndex(&G::Reserved3),
               VtableIndex(&G::Reserved4), VtableIndex(&G::DeleteAll)});
  using M = CMemLog;
  ExpectSlots({
      VtableIndex(static_cast<M& (M::*)(M& (*)(M&))>(&M::operator<<)),
      VtableIndex(static_cast<M& (M::*)(vxtime64_t)>(&M::operator<<)),
      VtableIndex(static_cast<M& (M::*)(vxtime32_t)>(&M::operator<<)),
      VtableIndex(static_cast<M& (M::*)(unsigned long)>(&M::operator<<)),
      VtableIndex(static_cast<M& (M::*)(unsigned short)>(&M::operator<<)),
      VtableIndex(static_cast<M& (M::*)(int)>(&M::operator<<)),
      VtableIndex(static_cast<M& (M::*)(const char*)>(&M::operator<<)), VtableIndex(&M::Attach),
      VtableIndex(&M::IsOpen), VtableIndex(&M::IsEnabled), VtableIndex(&M::SetLevel),
      VtableIndex(&M::Flush), VtableIndex(&M::BeginLine)
  });
  // The prefixed log only replaces two of them and adds none.
  EXPECT_EQ(VtableIndex(&CMemLogEx::SetLevel), VtableIndexOfSlot(11));
  EXPECT_EQ(VtableIndex(&CMemLogEx::BeginLine), VtableIndexOfSlot(13));
}

}  // namespace
