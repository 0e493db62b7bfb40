#include "hang/HangState.h"

#include "hang/QXProcessInfo.h"

namespace quorvix {

namespace {

// Never destroyed: the process ends without running destructors beside live threads.
std::unique_ptr<HangState>& holder() {
    static auto* const state = new std::unique_ptr<HangState>(std::make_unique<HangState>());
    return *state;
}

}  // namespace

HangState& hangState() { return *holder(); }

void resetHangState() { holder() = std::make_unique<HangState>(); }

}  // namespace quorvix
