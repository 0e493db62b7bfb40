#include "service/ServiceState.h"

#include "platform/Platform.h"
#include "service/Log.h"

namespace quorvix {

namespace {

constexpr std::string_view kSubsystem = "com.norvane.quorvix";

// Never destroyed: the process ends without running destructors beside live threads.
std::unique_ptr<ServiceState>& serviceStateHolder() {
    static auto* const state = new std::unique_ptr<ServiceState>(std::make_unique<ServiceState>());
    return *state;
}

}  // namespace

ServiceState& serviceState() { return *serviceStateHolder(); }

void resetServiceState() { serviceStateHolder() = std::make_unique<ServiceState>(); }

Settings& settings() { return serviceState().settings; }

const LogHandle& quorvixLog() {
    ServiceState& state = serviceState();
    std::call_once(state.logCreated, [&state] { state.log.emplace(platform().log, kSubsystem, ""); });
    return *state.log;
}

LogHandle platformLog() { return {platform().log, kSubsystem, "platform"}; }

}  // namespace quorvix
