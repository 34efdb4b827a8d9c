// The library's load-time entry: creates the service object before any host
// call and hands it the module's own handle, which names the module whose
// resources hold the replacement bodies.
#include "platform/platform.h"
#include "resources/resources.h"
#include "vxproxy/proxy.h"

namespace {

__attribute__((constructor)) void OnModuleLoad() {
  HMODULE self = os::GetModuleHandleOf(reinterpret_cast<const void*>(&OnModuleLoad));
  RegisterReplacementResources(self);
  GetProxy()->SetInstanceHandle(self);
}

__attribute__((destructor)) void OnModuleUnload() {
  os::UnregisterResources(os::GetModuleHandleOf(reinterpret_cast<const void*>(&OnModuleUnload)));
}

}  // namespace
