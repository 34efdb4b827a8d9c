#include <gtest/gtest.h>

#include "support/vtable.h"
#include "vxproxy/log.h"

namespace {

TEST(LogSlots, SinkOrderMatchesTheHostTable) {
  using L = CLog;
  EXPECT_EQ(VtableIndex(&L::Printf), VtableIndexOfSlot(1));
  EXPECT_EQ(VtableIndex(&L::Write), VtableIndexOfSlot(2));
  EXPECT_EQ(VtableIndex(static_cast<bool (L::*)()>(&L::IsOpen)), VtableIndexOfSlot(3));
  EXPECT_EQ(VtableIndex(&L::IsLevelEnabled), VtableIndexOfSlot(4));
  EXPECT_EQ(VtableIndex(static_cast<L& (L::*)(L& (*)(L&))>(&L::operator<<)), VtableIndexOfSlot(5));
  EXPECT_EQ(VtableIndex(static_cast<L& (L::*)(unsigned long)>(&L::operator<<)),
            VtableIndexOfSlot(6));
  EXPECT_EQ(VtableIndex(static_cast<L& (L::*)(unsigned short)>(&L::operator<<)),
            VtableIndexOfSlot(7));
  EXPECT_EQ(VtableIndex(static_cast<L& (L::*)(int)>(&L::operator<<)), VtableIndexOfSlot(8));
  EXPECT_EQ(VtableIndex(static_cast<L& (L::*)(const char*)>(&L::operator<<)),
            VtableIndexOfSlot(9));
  EXPECT_EQ(VtableIndex(static_cast<bool (L::*)() const>(&L::IsOpen)), VtableIndexOfSlot(10));
  EXPECT_EQ(VtableIndex(&L::SetLevel), VtableIndexOfSlot(11));
  EXPECT_EQ(VtableIndex(&L::SetLevelMask), VtableIndexOfSlot(12));
  EXPECT_EQ(VtableIndex(&L::GetLevelMask), VtableIndexOfSlot(13));
  EXPECT_EQ(VtableIndex(&L::SetFlushThreshold), VtableIndexOfSlot(14));
  EXPECT_EQ(VtableIndex(&L::ReadAll), VtableIndexOfSlot(15));
  EXPECT_EQ(VtableIndex(&L::Flush), VtableIndexOfSlot(16));
  EXPECT_EQ(VtableIndex(&L::Clear), VtableIndexOfSlot(17));
  EXPECT_EQ(VtableIndex(&L::SetEnabled), VtableIndexOfSlot(18));
  EXPECT_EQ(VtableIndex(&L::IsEnabled), VtableIndexOfSlot(19));
  EXPECT_EQ(VtableIndex(&L::SetMaxSize), VtableIndexOfSlot(20));
  EXPECT_EQ(VtableIndex(&L::GetMaxSize), VtableIndexOfSlot(21));
  EXPECT_EQ(VtableIndex(&L::Open), VtableIndexOfSlot(22));
  EXPECT_EQ(VtableIndex(&L::GetFileName), VtableIndexOfSlot(23));
  EXPECT_EQ(VtableIndex(&L::WriteBuffer), VtableIndexOfSlot(24));
  EXPECT_EQ(VtableIndex(&L::GetNumber), -1);  // not part of the table
}

TEST(LogSlots, ManagerOrder) {
  using M = CLogManager;
  EXPECT_EQ(VtableIndex(&M::CreateLog), VtableIndexOfSlot(1));
  EXPECT_EQ(VtableIndex(&M::GetLog), VtableIndexOfSlot(2));
  EXPECT_EQ(VtableIndex(&M::Reserved3), VtableIndexOfSlot(3));
  EXPECT_EQ(VtableIndex(&M::Reserved4), VtableIndexOfSlot(4));
  EXPECT_EQ(VtableIndex(&M::DeleteAll), VtableIndexOfSlot(5));
}

TEST(LogSlots, MemoryLogOrder) {
  using M = CMemLog;
  EXPECT_EQ(VtableIndex(static_cast<M& (M::*)(M& (*)(M&))>(&M::operator<<)), VtableIndexOfSlot(1));
  EXPECT_EQ(VtableIndex(static_cast<M& (M::*)(vxtime64_t)>(&M::operator<<)), VtableIndexOfSlot(2));
  EXPECT_EQ(VtableIndex(static_cast<M& (M::*)(vxtime32_t)>(&M::operator<<)), VtableIndexOfSlot(3));
  EXPECT_EQ(VtableIndex(static_cast<M& (M::*)(unsigned long)>(&M::operator<<)),
            VtableIndexOfSlot(4));
  EXPECT_EQ(VtableIndex(static_cast<M& (M::*)(unsigned short)>(&M::operator<<)),
            VtableIndexOfSlot(5));
  EXPECT_EQ(VtableIndex(static_cast<M& (M::*)(int)>(&M::operator<<)), VtableIndexOfSlot(6));
  EXPECT_EQ(VtableIndex(static_cast<M& (M::*)(const char*)>(&M::operator<<)), VtableIndexOfSlot(7));
  EXPECT_EQ(VtableIndex(&M::Attach), VtableIndexOfSlot(8));
  EXPECT_EQ(VtableIndex(&M::IsOpen), VtableIndexOfSlot(9));
  EXPECT_EQ(VtableIndex(&M::IsEnabled), VtableIndexOfSlot(10));
  EXPECT_EQ(VtableIndex(&M::SetLevel), VtableIndexOfSlot(11));
  EXPECT_EQ(VtableIndex(&M::Flush), VtableIndexOfSlot(12));
  EXPECT_EQ(VtableIndex(&M::BeginLine), VtableIndexOfSlot(13));
  // The prefixed log only replaces two of them and adds none.
  EXPECT_EQ(VtableIndex(&CMemLogEx::SetLevel), VtableIndexOfSlot(11));
  EXPECT_EQ(VtableIndex(&CMemLogEx::BeginLine), VtableIndexOfSlot(13));
}

}  // namespace
