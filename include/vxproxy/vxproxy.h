// Everything a host program needs: the service object and the classes it
// hands out. A host loads the module, looks up GetProxy and uses nothing but
// the virtual operations of what it returns.
#pragma once

#include "vxproxy/extensions.h"
#include "vxproxy/filterengine.h"
#include "vxproxy/log.h"
#include "vxproxy/messages.h"
#include "vxproxy/proxy.h"
#include "vxproxy/sitecounter.h"
#include "vxproxy/stringbuffer.h"
#include "vxproxy/threads.h"
#include "vxproxy/types.h"
#include "vxproxy/xmlstore.h"
