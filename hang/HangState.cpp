#include "hang/HangState.h"

#include "hang/QXProcessInfo.h"

namespace quorvix {

namespace {

// Never destroyed: the process ends without running destructors beside live threads.
std::unique_ptr<HangState>& hangStateHolder() {
    static auto* const state = new std::unique_ptr<HangState>(std::make_unique<HangState>());
    return *state;
}

}  // namespace

HangState& hangState() { return *hangStateHolder(); }

void resetHangState() { hangStateHolder() = std::make_unique<HangState>(); }

}  // namespace quorvix
