// Message queues for host notifications: the part of the platform layer that
// a host program uses directly. A window handle is a queue the host creates;
// a thread gets a queue when it first asks for one. Posting never waits.
#pragma once

#include "vxproxy/types.h"

namespace vx {
#if defined(_WIN32)
using ::MSG;
#else
struct MSG {
  HWND hwnd;
  UINT message;
  WPARAM wParam;
  LPARAM lParam;
};
#endif
}  // namespace vx

namespace os {

// The calling thread's identifier, as used by PostThreadMessageA.
vx::DWORD GetCurrentThreadId();

// Creates a queue that stands for a window; destroy it with DestroyWindowQueue.
vx::HWND CreateWindowQueue();
void DestroyWindowQueue(vx::HWND window);

// Gives the calling thread a message queue (threads without one cannot receive).
void CreateThreadQueue();

// Posting: false when the target has no queue. Results are advisory only.
bool PostMessageA(vx::HWND window, vx::UINT message, vx::WPARAM wParam, vx::LPARAM lParam);
bool PostThreadMessageA(vx::DWORD threadId, vx::UINT message, vx::WPARAM wParam, vx::LPARAM lParam);

// Takes the oldest message of a window queue (window not null) or of the
// calling thread's queue (window null), waiting at most timeoutMs
// milliseconds (negative: no limit). False on time-out or without a queue.
bool WaitMessage(vx::HWND window, vx::MSG* out, int timeoutMs);

}  // namespace os
