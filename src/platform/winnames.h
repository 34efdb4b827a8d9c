// The module's own code uses the Windows names of the seam's types without a
// namespace, as it would on Windows, where the system headers that
// vxproxy/types.h includes declare them. Elsewhere they come from here.
// Public headers never include this file: a host keeps its global names to
// its system.
#pragma once

#include "vxproxy/messages.h"
#include "vxproxy/types.h"

#if !defined(_WIN32)
using vx::BOOL;
using vx::BYTE;
using vx::DWORD;
using vx::HINSTANCE;
using vx::HMODULE;
using vx::HWND;
using vx::LPARAM;
using vx::MSG;
using vx::SOCKET;
using vx::UINT;
using vx::WORD;
using vx::WPARAM;
constexpr SOCKET INVALID_SOCKET = vx::kInvalidSocket;
constexpr int SOCKET_ERROR = vx::kSocketError;
#endif
