// A host program built against the public header alone: loads the module with
// dlopen, the way the desktop application does, and uses nothing but GetProxy
// and virtual operations. Prints what it saw; exit code 0 when all went well.
//   hostload_child MODULE_PATH FOLDER
#include <dlfcn.h>

#include <cstdio>

#include "vxproxy/vxproxy.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::printf("dlopen failed: %s\n", dlerror());
    return 3;
  }
  auto getProxy = reinterpret_cast<GetProxyFunction>(dlsym(module, "GetProxy"));
  if (getProxy == nullptr) return 4;
  CVxHTTPProxy* first = getProxy();
  CVxHTTPProxy* second = getProxy();
  std::printf("same=%d\n", first == second ? 1 : 0);
  std::printf("instance=%d\n", first->GetInstanceHandle() != nullptr ? 1 : 0);
  first->SetDataFolder(argv[2]);
  first->SetLogFolder(argv[2]);
  first->SetFilterFolder(argv[2]);
  const bool initialized = first->Initialize();
  std::printf("initialized=%d\n", initialized ? 1 : 0);
  CMemLogEx* log = first->GetMemLog();
  log->SetLevel(4);
  *log << "hello from the host " << 42 << lend;
  first->Uninitialize();
  dlclose(module);
  return first == second && initialized ? 0 : 1;
}
