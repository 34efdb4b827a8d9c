// Hosts name a few classes of the module directly: besides GetProxy the
// module exports the log manipulators, the site statistics record and the
// copy operations of the lock classes. The copy operations are inline, so
// they are emitted here on purpose; the linker script keeps every other
// symbol of the module local.
#include <new>

#include "vxproxy/threads.h"

namespace {

using SyncAssign = CSynchronizationBase& (CSynchronizationBase::*)(const CSynchronizationBase&);
using SectionAssign = CCriticalSectionEx& (CCriticalSectionEx::*)(const CCriticalSectionEx&);
using GuardAssign = CAutoSync& (CAutoSync::*)(const CAutoSync&);

struct ExportedCopies {
  SyncAssign syncAssign = &CSynchronizationBase::operator=;
  SectionAssign sectionAssign = &CCriticalSectionEx::operator=;
  GuardAssign guardAssign = &CAutoSync::operator=;
};

[[gnu::used]] const ExportedCopies kExportedCopies;

// Copy construction: the constructors are kept out of line (see threads.h),
// so a use here emits them.
[[gnu::used]] void EmitCopyConstructors(void* section, const CCriticalSectionEx& sectionFrom,
                                        void* guard, const CAutoSync& guardFrom) {
  new (section) CCriticalSectionEx(sectionFrom);
  new (guard) CAutoSync(guardFrom);
}

}  // namespace
