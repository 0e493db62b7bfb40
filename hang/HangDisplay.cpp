#include "hang/HangDisplay.h"

#include <algorithm>
#include <optional>

#include "hang/HangState.h"
#include "platform/Platform.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

using namespace std::chrono_literals;

constexpr auto kMessageTime = 2s;
// A client that reports hangs as fast as it can would else pile up clears for two seconds.
constexpr std::uint32_t kMaximumPendingClears = 1024;

void clearMessage() {
    HangState& state = hangState();
    --state.displayClearsPending;
    setHUDMessage(std::nullopt);
    if (state.displayClearsPending == 0 && state.displayClearOwed) {
        state.displayClearOwed = false;
        scheduleHUDClear();
    }
}

}  // namespace

bool hudMessagesShown() { return settings().internalBuild && settings().hudEnabled; }

void showHUDMessage(const std::string* text) {
    if (!hudMessagesShown()) return;
    RenderServer& server = platform().renderServer;
    const std::uint32_t port = server.port();
    if (port == 0) {
        quorvixLog().standard("Unable to get render server port!");
        return;
    }
    if (text) {
        auto& buffer = hangState().hudMessageBuffer;
        const std::size_t length = std::min(text->size(), buffer.size() - 1);
        std::copy_n(text->data(), length, buffer.data());
        buffer[length] = '\0';
        const std::string_view message(buffer.data(), length);
        quorvixLog().info("Setting message to: \"%s\"", message);
        server.setDebugMessage(port, message);
    } else {
        server.setDebugMessage(port, std::nullopt);
    }
    server.releasePort(port);
}

void scheduleHUDClear() {
    HangState& state = hangState();
    if (state.displayClearsPending == kMaximumPendingClears) {
        // Made up for by one clear after all that are pending.
        state.displayClearOwed = true;
        ++state.displayClearsDropped;
        return;
    }
    ++state.displayClearsPending;
    daemonQueue().asyncAfter(kMessageTime, clearMessage);
}

}  // namespace quorvix
