// The six replacement bodies that blocked requests get instead of the real
// content, built into the module as resources of type GIF, HTM, JS, CSS, XML
// and FLV named "DUMMY.<TYPE>".
#pragma once

#include <cstddef>

#include "platform/platform.h"

// The resource table of the module: six entries, valid for the life of the
// process.
const os::ResourceEntry* ReplacementResources(std::size_t* count);

// Registers the table under the module handle, so that lookups through the
// platform layer find the bodies.
void RegisterReplacementResources(HMODULE module);
