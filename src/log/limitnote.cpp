#include "log/limitnote.h"

#include "platform/platform.h"

bool CLimitNote::Due(unsigned long* skipped) {
  const DWORD now = os::GetTickCount();
  CAutoSync guard(lock_);
  // Unsigned difference: correct across the tick count's wrap.
  if (written_ && now - lastTick_ < kIntervalMs) {
    ++skipped_;
    return false;
  }
  written_ = true;
  lastTick_ = now;
  *skipped = skipped_;
  skipped_ = 0;
  return true;
}

void CLimitNote::Reset() {
  CAutoSync guard(lock_);
  written_ = false;
  skipped_ = 0;
}
