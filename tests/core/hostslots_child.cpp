// A host that links nothing of the proxy's but reaches it through dlopen: it
// is built against the public header alone and calls every virtual operation
// of every object the service hands out (service, settings document, filter
// engine, site counter, log sink, memory log). A call the compiler bound
// directly instead of through the table would fail to link or to load.
// Strings that operations fill come from the module itself: the host has no
// string code of its own to make them.
//   hostslots_child MODULE_PATH FOLDER
// Prints "FAIL <what>" for each check that fails; exit code = failures.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vxproxy/vxproxy.h"

namespace {

int g_failures = 0;

void Check(bool ok, const char* what) {
  if (ok) return;
  ++g_failures;
  std::printf("FAIL %s\n", what);
}

bool Same(const char* a, const char* b) { return a != nullptr && std::strcmp(a, b) == 0; }

void DriveService(CVxHTTPProxy* proxy, const std::string& folder) {
  proxy->SetDataFolder(folder.c_str());
  proxy->SetLogFolder(folder.c_str());
  proxy->SetFilterFolder(folder.c_str());
  proxy->SetHostFolder(folder.c_str());
  Check(Same(proxy->GetDataFolder(), folder.c_str()), "GetDataFolder");
  Check(Same(proxy->GetLogFolder(), folder.c_str()), "GetLogFolder");
  Check(Same(proxy->GetFilterFolder(), folder.c_str()), "GetFilterFolder");
  Check(Same(proxy->GetHostFolder(), folder.c_str()), "GetHostFolder");

  vx::HMODULE instance = proxy->GetInstanceHandle();
  Check(instance != nullptr && proxy->SetInstanceHandle(instance) == instance, "InstanceHandle");
  Check(!proxy->EnableFiltering(false) && !proxy->IsFilteringEnabled(), "EnableFiltering off");
  Check(proxy->EnableFiltering(true) && proxy->IsFilteringEnabled(), "EnableFiltering on");
  Check(proxy->SetTraceMode(2) == 2 && proxy->GetTraceMode() == 2, "TraceMode");
  proxy->SetTraceMode(1);
  Check(proxy->IsLocalHostName("LocalHost") && !proxy->IsLocalHostName("ads.example.com"),
        "IsLocalHostName");

  unsigned short port = 8080;
  CStringBuffer* upstream = proxy->GetUpstreamProxy(&port);
  Check(upstream != nullptr && upstream->GetSize() == 0 && port == 0, "GetUpstreamProxy");
  proxy->SetUpstreamProxy(*upstream, &port);

  Check(proxy->Initialize(), "Initialize");
  Check(Same(proxy->GetMimeType("gif"), "image/gif"), "GetMimeType");
  proxy->LoadPort();
  proxy->Uninitialize();

  proxy->CountFilteredRequest();
  proxy->CountBlockedImage();
  proxy->CountBlockedFlash();
  Check(proxy->GetFilteredRequests() == 1 && proxy->GetBlockedImages() == 1 &&
            proxy->GetBlockedFlash() == 1,
        "counters");
  Check(proxy->ResetCounters() == 0 && proxy->GetFilteredRequests() == 0, "ResetCounters");
  // A fresh module runs as designed; unknown bits are not taken.
  Check(proxy->GetExtensions() == 0 && proxy->SetExtensions(kExtensionsAll | 0x80000000u) == 0 &&
            proxy->GetExtensions() == kExtensionsAll && proxy->SetExtensions(0) == kExtensionsAll,
        "Extensions");

  NotifyTarget* target = proxy->AddNotifyTarget(nullptr, 7, 0x401, 1, true);
  Check(target != nullptr && proxy->AddNotifyTarget(nullptr, 7, 0x401, 3, false) == target,
        "AddNotifyTarget");
  proxy->RemoveNotifyTarget(nullptr, 7, 0x401);

  Check(proxy->GetHeaderManager() != nullptr, "GetHeaderManager");
  proxy->Reserved23();
}

void DriveFilterEngine(CVxHTTPProxy* proxy, const std::string& folder) {
  Check(proxy->LoadFilterLists(), "LoadFilterLists");
  CFilterEngine* engine = proxy->GetFilterEngine();
  Check(engine->IsDomainRuleHost("ads.example.com"), "IsDomainRuleHost listed");
  Check(!engine->IsDomainRuleHost("example.com"), "IsDomainRuleHost parent");
  Check(engine->LoadUserApprovedList((folder + "/vexilowl.txt").c_str()), "LoadUserApprovedList");
}

// The settings document: every operation of the store.
void DriveDocument(CSecureXMLParser* doc, CStringBuffer& text, const std::string& folder) {
  Check(doc->Parse("<Vexilo/>"), "Parse");
  Check(doc->CreateBlank() == 0, "CreateBlank");
  bool created = false;
  CVxXMLElement global = doc->CreateNode("Global/Name", created, false);
  Check(global.IsFound() && created, "CreateNode(path, created)");
  Check(doc->CreateNode("Global/List", true).IsFound(), "CreateNode(path, always)");
  CVxXMLElement root = doc->GetRootNode();
  Check(doc->CreateNode(root, "Global/List", true).IsFound(), "CreateNode(parent)");
  Check(doc->SetValue("Global/A", 5ul) && doc->SetValue("Global/B", -6l) &&
            doc->SetValue("Global/C", 7),
        "SetValue numbers");
  Check(doc->SetValue("Global/Name", "host", true), "SetValue text");
  CVxXMLElement globalNode = doc->GetNode("Global");
  Check(doc->SetValue(globalNode, "./D", "d", true) && doc->SetValue("./E", globalNode, "e", true),
        "SetValue relative");
  Check(doc->GetValueInt("Global/A") == 5 && doc->GetValueLong("Global/B") == -6, "GetValue numbers");
  char path[] = "./C";
  Check(doc->GetValueInt(globalNode, path) == 7 && doc->GetValueLong(globalNode, "./C") == 7,
        "GetValue relative");

  doc->GetValue("Global/Name", text);
  Check(std::string(text.GetBuffer()) == "host", "GetValue(path)");
  doc->GetValue(globalNode, "./D", text);
  Check(std::string(text.GetBuffer()) == "d", "GetValue(from)");
  doc->GetText("Global/E", text);
  Check(std::string(text.GetBuffer()).find('e') != std::string::npos, "GetText(path)");
  doc->GetText("./Name", globalNode, text);
  Check(std::string(text.GetBuffer()).find("host") != std::string::npos, "GetText(from)");

  CVxXMLElement named = doc->GetNodeByName("Name");
  CStringBuffer* name = &text;
  doc->GetNodeName(named, *name);
  Check(std::string(name->GetBuffer()) == "Name", "GetNodeByName/GetNodeName");
  Check(doc->GetNode("./Name", globalNode) == named, "GetNode(from)");
  Check(doc->CreateTextNode("tail", globalNode).IsFound(), "CreateTextNode");

  std::vector<CVxXMLElement> nodes;
  Check(doc->GetAllNodes("Global/List", nodes) == 2, "GetAllNodes");
  nodes.clear();
  Check(doc->GetAllNodes("./List", globalNode, nodes) == 2, "GetAllNodes(from)");
  nodes.clear();
  const int children = doc->GetAllChildNodes(globalNode, nodes);
  Check(children >= 7, "GetAllChildNodes(element)");
  nodes.clear();
  Check(doc->GetAllChildNodes("Global", nodes) == children, "GetAllChildNodes(path)");
  CVectorWrapper* wrapper = doc->GetAllChildNodes("Global");
  Check(wrapper != nullptr && wrapper->GetCount() == children, "GetAllChildNodes wrapper");
  doc->FreeWrapper(wrapper);

  doc->GetDocument(globalNode, text, true);
  Check(std::string(text.GetBuffer()).find("<Name>host</Name>") != std::string::npos,
        "GetDocument(indent)");
  doc->GetDocument(globalNode, text);
  Check(std::string(text.GetBuffer()).find("<D>d</D>") != std::string::npos, "GetDocument(element)");
  doc->GetDocument(text);
  Check(std::string(text.GetBuffer()).find("<Vexilo>") != std::string::npos, "GetDocument");

  const std::string file = folder + "/hostdoc.xml";
  Check(doc->Store(file.c_str()) == 0, "Store(path)");
  Check(doc->ParseFile(file.c_str()) == 0 && Same(doc->GetFileName(), file.c_str()), "ParseFile");
  Check(doc->Store() == 0, "Store()");
  Check(doc->WriteToFile((folder + "/raw.txt").c_str(), "raw", -1) == 0, "WriteToFile");
  // An empty list of parts, made without the string class's code: an empty
  // vector is three null pointers.
  alignas(std::vector<CStringBuffer>) unsigned char noParts[sizeof(std::vector<CStringBuffer>)] = {};
  doc->Store(*reinterpret_cast<std::vector<CStringBuffer>*>(noParts));
  doc->Destroy();
  Check(!doc->GetRootNode().IsFound(), "Destroy");
}

void DriveSiteCounter(CVxHTTPProxy* proxy) {
  proxy->OpenStatistics();
  CSiteCounter* sites = proxy->GetSiteCounter();
  std::uint64_t sent = 0, received = 0, adSize = 0;
  sites->GetBytes(&sent, &received, &adSize);
  const std::uint64_t requests = sites->GetRequestHistory();
  sites->AddRequests(3);
  sites->AddBytes(10, 20);
  sites->AddAdSize(30);
  std::uint64_t sent2 = 0, received2 = 0, adSize2 = 0;
  sites->GetBytes(&sent2, &received2, &adSize2);
  Check(sites->GetRequestHistory() == requests + 3, "AddRequests");
  Check(sent2 == sent + 10 && received2 == received + 20 && adSize2 == adSize + 30, "AddBytes/AddAdSize");
  sites->GetHistory();
  sites->GetStatStartTime();
  sites->GetSiteHistory();
  sites->GetSitesCounter();
  CSiteList* list = sites->GetSites();
  Check(list != nullptr, "GetSites");
  sites->FreeSites(list);
  sites->ClearSites();
  Check(sites->GetSitesCounter() == 0, "ClearSites");
  Check(sites->Store(sites->GetFileName()) == 0, "Store");
  Check(proxy->CloseStatistics() >= 0, "CloseStatistics");
  proxy->ReleaseDocuments();
}

void DriveLogs(CVxHTTPProxy* proxy, CSecureXMLParser* doc, CStringBuffer& text,
               const std::string& folder) {
  CLog* log = proxy->GetLog(2);
  Check(log != nullptr && log->IsOpen() && static_cast<const CLog*>(log)->IsOpen(), "log open");
  const std::string file = folder + "/proxy.log";
  Check(log->Open(file.c_str()) && Same(log->GetFileName(), file.c_str()), "Open/GetFileName");
  log->Clear();
  Check(log->SetLevelMask(log->GetLevelMask() | 8) & 8, "SetLevelMask");
  Check(log->IsLevelEnabled(8), "IsLevelEnabled");
  log->SetEnabled(true);
  Check(log->IsEnabled(), "IsEnabled");
  log->SetMaxSize(1 << 20);
  Check(log->GetMaxSize() == (1ul << 20), "MaxSize");
  Check(log->SetFlushThreshold(0) == 0, "SetFlushThreshold");
  Check(log->SetLevel(4) == 4, "SetLevel");
  log->Printf(4, "printf %d\r\n", 1);
  log->Write(4, "write 2\r\n", 9);
  *log << "stream " << 3 << " " << 4ul << " " << static_cast<unsigned short>(5) << "\r\n";
  log->Flush();
  doc->Parse("<Vexilo><Line>buffer 6</Line></Vexilo>");
  doc->GetValue("Line", text);
  log->WriteBuffer(text);
  log->ReadAll(text);
  Check(std::string(text.GetBuffer()).find("stream 3 4 5") != std::string::npos, "ReadAll");

  CMemLogEx* memLog = proxy->GetMemLog();
  memLog->Attach(log);
  Check(memLog->IsOpen() && memLog->IsEnabled(), "memory log open");
  memLog->SetLevel(4);
  memLog->BeginLine();
  *memLog << "memory " << 7 << " " << 8ul << " " << static_cast<unsigned short>(9) << " "
          << static_cast<vxtime64_t>(0) << " " << static_cast<vxtime32_t>(0) << lend;
  memLog->Flush();
  doc->Destroy();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 100;
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::printf("FAIL dlopen: %s\n", dlerror());
    return 101;
  }
  auto getProxy = reinterpret_cast<GetProxyFunction>(dlsym(module, "GetProxy"));
  if (getProxy == nullptr) return 102;
  CVxHTTPProxy* proxy = getProxy();
  const std::string folder = argv[2];

  DriveService(proxy, folder);
  DriveFilterEngine(proxy, folder);
  // The host owns no string object: the upstream host buffer serves as scratch.
  unsigned short port = 0;
  CStringBuffer& scratch = *proxy->GetUpstreamProxy(&port);
  DriveDocument(proxy->GetSettings(), scratch, folder);

  // The memory log builds one line at a time for one writer: the host writes
  // to it while the service's own threads do not run.
  Check(proxy->Initialize(), "Initialize for the logs");
  DriveLogs(proxy, proxy->GetSettings(), scratch, folder);
  proxy->Uninitialize();

  Check(!proxy->isRunning() && proxy->Start() && proxy->isRunning(), "Start");
  Check(proxy->GetActiveClientCount() == 0, "GetActiveClientCount");
  Check(proxy->Stop() && !proxy->isRunning(), "Stop");
  Check(proxy->Stop(1000), "Stop(timeout)");
  proxy->Kill();
  Check(proxy->Run() == 0, "thread body without a listener");

  DriveSiteCounter(proxy);
  proxy->GetSettings()->GetValue("None", scratch);  // leaves no upstream proxy behind
  std::printf("done failures=%d\n", g_failures);
  return g_failures;
}
