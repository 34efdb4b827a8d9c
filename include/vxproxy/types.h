// Basic types shared by the module, its utility library and its hosts.
// They mirror the handle and integer types of the original Windows build so
// that the code above the platform layer reads the same on every system.
#pragma once

#include <cstdint>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using UINT = std::uint32_t;
using BOOL = int;
using WPARAM = std::uintptr_t;
using LPARAM = std::intptr_t;

// Opaque handles. A window handle names a message queue created by the
// platform layer; a module handle names a loaded library.
using HWND = void*;
using HMODULE = void*;
using HINSTANCE = HMODULE;

// A socket handle. INVALID_SOCKET has all bits set, as on Winsock.
using SOCKET = std::uintptr_t;
constexpr SOCKET INVALID_SOCKET = ~static_cast<SOCKET>(0);
constexpr int SOCKET_ERROR = -1;

// Calendar times in seconds since 1970. The 64-bit form is the C library's
// time value; the 32-bit form is a distinct type so that stream operators can
// tell it from a plain int.
using vxtime64_t = std::int64_t;
enum class vxtime32_t : std::int32_t {};

#if defined(_WIN32)
#define VX_EXPORT __declspec(dllexport)
#define VX_IMPORT __declspec(dllimport)
#else
#define VX_EXPORT __attribute__((visibility("default")))
#define VX_IMPORT __attribute__((visibility("default")))
#endif
