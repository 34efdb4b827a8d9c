// The filter engine: reads filter lists in the easylist syntax and the user's
// approved list, and gives each request a verdict.
//
// The host application reaches only the two virtual slots, in this order:
// 0 IsDomainRuleHost, 1 LoadUserApprovedList. The engine belongs to the
// service object, which hands it out; the rest of it lives in the module.
#pragma once

class CFilterEngine {
 public:
  // Slot 0: whether the host name, exactly as given, is the key of an
  // ad-server domain rule.
  virtual bool IsDomainRuleHost(const char* host) = 0;
  // Slot 1: replaces the approved list by the "@@" lines of the file. A
  // missing file is an empty list (true); false after a read error.
  virtual bool LoadUserApprovedList(const char* path) = 0;

  CFilterEngine(const CFilterEngine&) = delete;
  CFilterEngine& operator=(const CFilterEngine&) = delete;

 protected:
  CFilterEngine() = default;
  ~CFilterEngine() = default;  // not virtual: the host never deletes the engine
};
