// Where a virtual member function sits in its class's virtual table, read
// from the Itanium C++ ABI's representation of a pointer to member function:
// for a virtual function the first word is 1 plus the byte offset of its
// entry in the table. Tests use it to pin the declared order of the virtual
// operations that hosts call through the table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// The vtable index of a virtual member function, or -1 when the pointer names
// a non-virtual function.
template <typename Method>
std::ptrdiff_t VtableIndex(Method method) {
  static_assert(sizeof(Method) == 2 * sizeof(std::uintptr_t),
                "expects the Itanium representation of a member function pointer");
  std::uintptr_t raw[2];
  std::memcpy(raw, &method, sizeof raw);
  if ((raw[0] & 1u) == 0) return -1;
  return static_cast<std::ptrdiff_t>((raw[0] - 1) / sizeof(void*));
}

// The vtable index of an operation numbered in a slot table whose slot 0 is
// a virtual destructor: the destructor takes two entries (the complete and
// the deleting one), so every later slot sits one place further on.
constexpr std::ptrdiff_t VtableIndexOfSlot(int slot) { return slot == 0 ? 0 : slot + 1; }
