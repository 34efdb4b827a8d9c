// Basic types shared by the module, its utility library and its hosts.
//
// They carry the names of the Windows handle and integer types, but live in
// namespace vx so that a Windows host can include these headers after
// <winsock2.h> and <windows.h>. There they are the system's own types, so an
// operation taking a vx::DWORD takes a DWORD and a window is an HWND; on other
// systems they stand in for them with types of the same width.
#pragma once

#include <cstdint>

#if defined(_WIN32)
#include <winsock2.h>
#include <windows.h>
#endif

namespace vx {

#if defined(_WIN32)
using ::BOOL;
using ::BYTE;
using ::DWORD;
using ::HINSTANCE;
using ::HMODULE;
using ::HWND;
using ::LPARAM;
using ::SOCKET;
using ::UINT;
using ::WORD;
using ::WPARAM;
#else
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

// A socket handle, as wide as a pointer like Winsock's.
using SOCKET = std::uintptr_t;
#endif

// The invalid socket has all bits set and failed socket calls return -1, as
// on Winsock.
constexpr SOCKET kInvalidSocket = ~static_cast<SOCKET>(0);
constexpr int kSocketError = -1;

}  // namespace vx

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
