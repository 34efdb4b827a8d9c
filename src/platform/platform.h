// The platform layer: everything the proxy needs from the operating system,
// behind one set of functions. Nothing above this folder includes a system
// header of its own; a port to another system rewrites this folder only.
//
// Paths: every function that takes a path accepts "\\" as well as "/" as a
// separator, so "folder\\vexilo.ini" works unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/winnames.h"
#include "vxproxy/messages.h"
#include "vxproxy/types.h"

namespace os {

// ---------------------------------------------------------------- sockets --

constexpr std::uint32_t INADDR_NONE_VALUE = 0xFFFFFFFFu;
constexpr std::uint32_t kLoopbackAddress = 0x7F000001u;  // 127.0.0.1, host order
constexpr int MSG_PEEK_FLAG = 1;

// Socket-library start-up and clean-up. Counted per process: a start-up that
// succeeds raises the count, CleanupSockets lowers it and never below zero.
int WSAStartup();   // 0 on success
int WSACleanup();   // 0 on success
int SocketStartupCount();

// Error code of the last failed socket call of the calling thread.
int WSAGetLastError();

SOCKET CreateTcpSocket();  // IPv4 stream socket, INVALID_SOCKET on failure
int closesocket(SOCKET s);
// Shuts a socket down in both directions but leaves the descriptor to its
// owner, who still closes it: calls blocked on it in other threads return,
// and a connect that has not started yet fails. 0 on success.
int shutdown(SOCKET s);
// Ends the sending direction only (the peer reads the end after what was
// sent), while receiving goes on. 0 on success.
int ShutdownSend(SOCKET s);

// Binds to INADDR_ANY and the port (host order). 0 on success.
int BindAny(SOCKET s, std::uint16_t port);
// Binds to one local IPv4 address (host order), e.g. a client's source address.
int Bind(SOCKET s, std::uint32_t address, std::uint16_t port);
int listen(SOCKET s, int backlog);
// A backlog that asks for the longest accept queue the system allows.
constexpr int kMaxListenBacklog = 0x7FFFFFFF;
// Accepts a connection; the peer's IPv4 address and port come back in host order.
SOCKET accept(SOCKET s, std::uint32_t* peerAddress, std::uint16_t* peerPort);
// Local and peer ends of a connected or bound socket, host order. 0 on success.
int getsockname(SOCKET s, std::uint32_t* address, std::uint16_t* port);
int getpeername(SOCKET s, std::uint32_t* address, std::uint16_t* port);
// Blocking connect to an IPv4 address (host order). 0 on success.
int connect(SOCKET s, std::uint32_t address, std::uint16_t port);

// send/recv as on Winsock: byte count, 0 when the peer closed (recv), or
// SOCKET_ERROR. flags is 0 or MSG_PEEK_FLAG.
int send(SOCKET s, const char* data, int length);
int recv(SOCKET s, char* buffer, int length, int flags);

// Waits until one of up to two sockets is readable (INVALID_SOCKET entries are
// left out). Returns a negative value on error, 0 on time-out, otherwise a
// bit set: 1 when the first socket is readable, 2 when the second is.
int SelectRead(SOCKET first, SOCKET second, long seconds, long microseconds);

// Name resolution (IPv4). Addresses in host order; false when the name does
// not resolve.
bool gethostbyname(const char* name, std::vector<std::uint32_t>* addresses);
// Dotted-quad parsing; INADDR_NONE_VALUE when the text is no such address.
std::uint32_t inet_addr(const char* text);
// Dotted-quad text of an address in host order.
std::string inet_ntoa(std::uint32_t address);
// This machine's host name. 0 on success.
int gethostname(char* buffer, int size);
// The IPv4 addresses of this machine's network interfaces, host order.
std::vector<std::uint32_t> InterfaceAddresses();
// Whether a connection to the address (host order) ends on this machine: a
// loopback address (127.0.0.0/8), the any-address, or an interface's address.
bool IsOwnAddress(std::uint32_t address);

// ----------------------------------------------------- machine and process --

// File name of the running executable (module null) or of a loaded module, in
// the Windows form with "\\" separators. Returns the length, 0 on failure.
DWORD GetModuleFileNameA(HMODULE module, char* buffer, DWORD size);
// The module handle of the library that contains the given address.
HMODULE GetModuleHandleOf(const void* address);
// The computer name. True on success; size is in/out as on Windows.
bool GetComputerNameA(char* buffer, DWORD* size);

// Threads with a chosen stack size (0: the system's default). StartThread
// returns null when no thread could be started. Every started body is either
// joined (JoinThread waits for its end) or detached; both free the handle.
// With reuse the body may run on a thread that ran an earlier body and has
// waited for work since (its thread-local state and id carry over); such a
// thread ends after a second without work.
struct NativeThread;
NativeThread* StartThread(void (*body)(void*), void* argument, std::size_t stackBytes,
                          bool reuse = false);
void JoinThread(NativeThread* thread);
// Joins only a body that has already ended; true (and the handle freed) when
// it was joined, false at once while it still runs.
bool TryJoinThread(NativeThread* thread);
void DetachThread(NativeThread* thread);
// True when called on the thread itself.
bool IsCurrentThread(const NativeThread* thread);

// Milliseconds since an arbitrary start, wrapping at 2^32.
DWORD GetTickCount();
void Sleep(DWORD milliseconds);

struct SYSTEMTIME {
  WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
};
void GetSystemTime(SYSTEMTIME* utc);
void GetLocalTime(SYSTEMTIME* local);
// Seconds since 1970-01-01 UTC.
vxtime64_t Time64();
// The C library's local-time text of t ("Wed Jan 02 02:03:55 1980\n"); empty
// when the library refuses the value.
std::string CTime(vxtime64_t t);

// Whether the process's standard output is a terminal (not a pipe or file).
bool StdoutIsTerminal();

// Writes the text to the debugger. Here: to stderr, and only when the
// environment variable VXPROXY_DEBUG is set.
void OutputDebugStringA(const char* text);

// -------------------------------------------------------------------- files --

// Converts a path in the Windows form to the native one.
std::string NativePath(const char* path);
bool DeleteFileA(const char* path);
bool FileExists(const char* path);
// Size of a file in bytes; 0 when absent.
std::uint64_t FileSize(const char* path);
// Last modification time of a file in nanoseconds since 1970; 0 when absent.
std::int64_t FileModifiedTime(const char* path);
// Creates one directory; true when it exists afterwards.
bool CreateDirectoryA(const char* path);
bool DirectoryExists(const char* path);

// A file mapped into memory for reading and writing.
struct MappedFile;
MappedFile* MapFile(const char* path);        // null when it cannot be opened
char* MappedStart(MappedFile* file);           // null when empty or unmapped
std::uint64_t MappedSize(MappedFile* file);
// Moves the bytes behind [offset, offset+count) down and shortens the file.
bool MappedDeleteBlock(MappedFile* file, std::uint64_t offset, std::uint64_t count);
void UnmapFile(MappedFile* file);

// Private-profile (ini) files: "[section]" lines and "key=value" lines.
// Returns the number of characters copied (at most size - 1).
DWORD GetPrivateProfileStringA(const char* section, const char* key, const char* defaultValue,
                               char* buffer, DWORD size, const char* path);
bool WritePrivateProfileStringA(const char* section, const char* key, const char* value,
                                const char* path);

// -------------------------------------------------------- named semaphores --

// A semaphore with one unit, shared by every process that opens the same
// name. A holder that dies gives its unit back, so a killed process cannot
// wedge the others.
struct NamedSemaphore;
NamedSemaphore* OpenNamedSemaphore(const char* name);
// Takes the unit, waiting at most timeoutMs (negative: no limit). True when taken.
bool AcquireNamedSemaphore(NamedSemaphore* sem, long timeoutMs);
void ReleaseNamedSemaphore(NamedSemaphore* sem);
void CloseNamedSemaphore(NamedSemaphore* sem);

// --------------------------------------------------------- module resources --

// Resources are byte arrays built into a module. A module registers its table
// when it is loaded; lookups name the module, the type and the name.
struct ResourceEntry {
  const char* type;
  const char* name;
  const unsigned char* data;
  std::size_t size;
};
void RegisterResources(HMODULE module, const ResourceEntry* entries, std::size_t count);
void UnregisterResources(HMODULE module);
// Null when the module has no such resource.
const ResourceEntry* FindResourceA(HMODULE module, const char* name, const char* type);

}  // namespace os
