// The log levels are part of the host interface (vxproxy/log.h); the module's
// files that write lines include this header for them and for the short type
// names.
#pragma once

#include "platform/winnames.h"
#include "vxproxy/log.h"
