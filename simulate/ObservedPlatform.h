#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/Platform.h"
#include "platform/sim/SimPlatform.h"
#include "simulate/Faults.h"
#include "simulate/Trace.h"

namespace quorvix::simulate {

// The simulated platform with every call seen and every call able to go wrong: what the daemon runs on. Each service
// asks the plan of faults first, then the simulated service, then writes the call down.
class ObservedPlatform {
public:
    ObservedPlatform(sim::SimPlatform& device, Trace& trace, FaultPlan& faults);
    ~ObservedPlatform();
    ObservedPlatform(const ObservedPlatform&) = delete;
    ObservedPlatform& operator=(const ObservedPlatform&) = delete;

    Platform& services();
    // Debug lines are formatted and compared.
    void setDebugLines(bool on);
    // The daemon is gone, and all that belonged to its process: open files, mappings' numbers.
    void processEnded();
    // Mappings made so far: each has its number.
    std::uint64_t mappingsMade() const;

private:
    struct Services;
    std::unique_ptr<Services> services_;
};

// The status of a daemon that can't have its endpoint.
inline constexpr int kNoEndpoint = 71;

// Where the simulated trace library is found, and what it writes for a trace.
inline constexpr std::string_view kTraceLibraryPath = "/usr/lib/libswivex.dylib";
void installTraceLibrary(sim::SimPlatform& device, bool withDumpFunction);
// A whole trace: "TRACE " and the reason and "\nEND".
std::string traceContent(std::string_view reason);

}  // namespace quorvix::simulate
