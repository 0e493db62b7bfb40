#include "ctl/Diagnosis.h"

#include <unistd.h>

namespace quorvix::ctl {

std::string_view findingKindName(Finding::Kind kind) {
    switch (kind) {
        case Finding::Kind::good: return "good";
        case Finding::Kind::notice: return "notice";
        case Finding::Kind::problem: break;
    }
    return "problem";
}

Findings examineUser(const ToolServices&) {
    if (geteuid() == 0) return {{Finding::Kind::good, "user", "this is root", ""}};
    return {{Finding::Kind::problem, "user", "this is not root, who alone sees quorvixd's folders and state",
             "run \"quorvixctl doctor\" as root: what follows may be wrong"}};
}

Findings examineInstallation(const ToolServices& services) {
    Findings all;
    for (const auto& look :
         {examineUser, examineFolders, examineStores, examinePreferences, examineService, examineJournal,
          examineTracing, examineKernelPrograms, examineInhibitors, examineTraceLibrary, examineExport}) {
        Findings found = look(services);
        all.insert(all.end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    }
    return all;
}

}  // namespace quorvix::ctl
