#include "ctl/StateDocument.h"

#include <cerrno>
#include <ostream>
#include <utility>

#include "ctl/StateSocket.h"

namespace quorvix::ctl {

namespace {

std::string failureText(ErrorCode error, const std::string& path) {
    switch (error.value) {
        case ENOENT:
        case ECONNREFUSED:
            return "quorvixd is not running (nothing listens at " + path +
                   "). It ends by itself while everything is switched off: see \"quorvixctl prefs list\"";
        case EACCES:
        case EPERM: return "only root may read quorvixd's state (" + path + ")";
        case ETIMEDOUT: return "quorvixd did not give its state in time";
        default: return "quorvixd's state could not be read from " + path + ": " + error.text();
    }
}

}  // namespace

StateDocument readStateDocument(const ToolServices& services) {
    const Result<std::string> document = readState(services.statePath);
    if (!document) {
        const int error = document.error().value;
        services.error << "quorvixctl: " << failureText(document.error(), services.statePath) << "\n";
        return {error == ENOENT || error == ECONNREFUSED ? ExitStatus::notRunning : ExitStatus::failed, {}};
    }
    auto state = nlohmann::ordered_json::parse(*document, nullptr, false);
    if (!state.is_object()) {
        services.error << "quorvixctl: what quorvixd gave as its state is not a JSON object\n";
        return {ExitStatus::failed, {}};
    }
    return {ExitStatus::done, std::move(state)};
}

}  // namespace quorvix::ctl
