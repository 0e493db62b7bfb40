#include "simulate/ObservedPlatform.h"

#include <unistd.h>

#include <cerrno>

#include "platform/swivex.h"
#include "simulate/ObservedFiles.h"
#include "simulate/ObservedOutputs.h"
#include "simulate/ObservedQueries.h"
#include "simulate/ObservedQueues.h"

namespace quorvix::simulate {

namespace {

using namespace observed;

class Regions final : public RegionMemory {
public:
    explicit Regions(Context& context) : context_(context) {
        context_.device.regions.onMap = [this](const SharedMemoryMapping& mapping) {
            Record& record = context_.record(Op::regionMap, {});
            if (!mapping.address) {
                record.error = ErrorCode{ENOMEM};
                return;
            }
            record.number = ++context_.mappingsMade;
            context_.mappings[mapping.address] = record.number;
        };
    }
    ~Regions() override { context_.device.regions.onMap = nullptr; }
    Regions(const Regions&) = delete;
    Regions& operator=(const Regions&) = delete;

    bool guarded(const void* address, Access access, void* context) noexcept override {
        const Fault fault = context_.faults.take(Op::regionFault);
        if (!fault.fails() && context_.device.regions.guarded(address, access, context)) return true;
        Record& record = context_.record(Op::regionFault, {});
        record.number = context_.mappings[address];
        record.error = fault.error;
        return false;
    }
    void unmap(void* address, std::uint64_t length) noexcept override {
        context_.device.regions.unmap(address, length);
    }

private:
    Context& context_;
};

class Notifications final : public NotificationService {
public:
    explicit Notifications(Context& context) : context_(context) {}
    std::unique_ptr<NotificationToken> registerHandler(std::string_view name, const std::shared_ptr<WorkQueue>& queue,
                                                       Work handler) override {
        const Fault fault = context_.faults.take(Op::registerHandler);
        Record& record = context_.record(Op::registerHandler, std::string(name) + " on " + queue->label());
        record.error = fault.isShort ? ErrorCode{EMFILE} : fault.error;
        if (record.error.value == 0)
            return context_.device.notifications.registerHandler(name, queue, std::move(handler));
        // What can't be had at once is refused; what fails later, on the queue, leaves a token that gets nothing.
        return fault.isShort ? std::make_unique<NotificationToken>() : nullptr;
    }

private:
    Context& context_;
};

// The one dump function that is loaded; it finds its context here, as a library finds its own state.
Context* dumpContext = nullptr;
const char* const kReasonKey = "reason";
const char* const kNoSymbolsKey = "no-symbols";
const char* const kMinimumKey = "minimum";
const char* const kMaximumKey = "maximum";

bool dumpTrace(int descriptor, const swivex_options* options) {
    Context& context = *dumpContext;
    std::map<std::string, std::string> byKey;
    for (std::size_t i = 0; i < options->count; ++i) {
        const swivex_option& option = options->options[i];
        byKey[option.key] = option.type == SWIVEX_OPTION_STRING ? std::string(option.value.text)
                            : option.type == SWIVEX_OPTION_BOOL ? std::string(option.value.boolean ? "yes" : "no")
                                                                : std::to_string(option.value.number);
    }
    const std::string& reason = byKey[kReasonKey];
    std::string what;
    for (const auto& [key, value] : byKey) what += (what.empty() ? "" : " ") + key + "=" + value;
    const Fault fault = context.faults.take(Op::dump);
    const std::string content = traceContent(reason);
    const std::size_t length = fault.isShort ? content.size() / 2 : fault.fails() ? 0 : content.size();
    const bool whole = ::write(descriptor, content.data(), length) == static_cast<ssize_t>(content.size());
    Record& record = context.record(Op::dump, std::move(what));
    if (!whole) record.error = ErrorCode{EIO};
    context.spend(record, fault);
    return whole;
}

class Libraries final : public LibraryLoader {
public:
    explicit Libraries(Context& context) : context_(context) {}
    void* open(std::string_view path) override {
        return context_.leavesOut(Op::libraryOpen) ? nullptr : context_.device.libraries.open(path);
    }
    void* symbol(void* library, const char* name) override {
        const bool isFunction = std::string_view(name) == "swivex_dump_output_with_options_sync";
        if (isFunction && context_.leavesOut(Op::dumpFunction)) return nullptr;
        return context_.device.libraries.symbol(library, name);
    }

private:
    Context& context_;
};

class ObservedJson final : public JsonService {
public:
    explicit ObservedJson(Context& context) : context_(context) {}
    Result<std::vector<std::uint8_t>> serialise(const JsonObject& object) override {
        return call<std::vector<std::uint8_t>>(Op::serialise, [&] { return context_.device.json.serialise(object); });
    }
    Result<std::string> makeText(const std::vector<std::uint8_t>& bytes) override {
        return call<std::string>(Op::makeText, [&] { return context_.device.json.makeText(bytes); });
    }

private:
    template <class T, class Run>
    Result<T> call(Op op, Run run) {
        const Fault fault = context_.faults.take(op);
        auto result = fault.fails() ? Result<T>(fault.error) : run();
        Record& record = context_.record(op, {});
        if (!result) record.error = result.error();
        context_.spend(record, fault);
        return result;
    }
    Context& context_;
};

// Only the endpoint itself is watched: what clients do is a matter of the actions.
class Messages final : public MessageService {
public:
    explicit Messages(Context& context) : context_(context) {}
    std::shared_ptr<MessageListener> makeListener(std::string_view endpoint,
                                                  const std::shared_ptr<WorkQueue>& queue) override {
        const Fault fault = context_.faults.take(Op::makeListener);
        context_.record(Op::makeListener, std::string(endpoint)).error = fault.error;
        if (!fault.fails()) return context_.device.messages.makeListener(endpoint, queue);
        context_.trace.endWork();
        throw sim::SimulatedExit{kNoEndpoint};
    }

private:
    Context& context_;
};

}  // namespace

struct ObservedPlatform::Services {
    Services(sim::SimPlatform& device, Trace& trace, FaultPlan& faults) : context{device, trace, faults} {}

    Context context;
    Queues queues{context};
    Log log{context};
    Counters counters{context};
    ObservedFiles files{context};
    Messages messages{context};
    Regions regions{context};
    Store preferences{context};
    Lists propertyLists{context};
    Notifications notifications{context};
    Processes processes{context};
    Host host{context};
    Libraries libraries{context};
    ObservedJson json{context};
    Random random{context};
    Display renderServer{context};
    Lifecycle lifecycle{context};
    Power powerLog{context};
    Intervals signposts{context};
    Memory processMemory{context};
    Capabilities capabilities{context};
    Version systemInformation{context};
    Kernel kernelMemory{context};

    Platform platform{.tickClock = context.device.tickClock,
                      .wallClock = context.device.wallClock,
                      .queues = queues,
                      .messages = messages,
                      .regions = regions,
                      .notifications = notifications,
                      .preferences = preferences,
                      .propertyLists = propertyLists,
                      .capabilities = capabilities,
                      .log = log,
                      .counters = counters,
                      .processes = processes,
                      .host = host,
                      .files = files,
                      .libraries = libraries,
                      .json = json,
                      .random = random,
                      .renderServer = renderServer,
                      .lifecycle = lifecycle,
                      .state = context.device.state,
                      .powerLog = powerLog,
                      .signposts = signposts,
                      .console = context.device.console,
                      .systemInformation = systemInformation,
                      .processMemory = processMemory,
                      .kernelMemory = kernelMemory};
};

ObservedPlatform::ObservedPlatform(sim::SimPlatform& device, Trace& trace, FaultPlan& faults)
    : services_(std::make_unique<Services>(device, trace, faults)) {
    dumpContext = &services_->context;
}

ObservedPlatform::~ObservedPlatform() { dumpContext = nullptr; }

Platform& ObservedPlatform::services() { return services_->platform; }

void ObservedPlatform::setDebugLines(bool on) { services_->log.debugLines = on; }

void ObservedPlatform::processEnded() {
    services_->context.openNames.clear();
    services_->context.mappings.clear();
}

std::uint64_t ObservedPlatform::mappingsMade() const { return services_->context.mappingsMade; }

std::string traceContent(std::string_view reason) { return "TRACE " + std::string(reason) + "\nEND"; }

void installTraceLibrary(sim::SimPlatform& device, bool withDumpFunction) {
    sim::SimLibraries::Symbols symbols{
        {"SWXDumpOptions_ReasonString", const_cast<char**>(const_cast<const char**>(&kReasonKey))},
        {"SWXDumpOptions_NoSymbolicate", const_cast<char**>(const_cast<const char**>(&kNoSymbolsKey))},
        {"SWXDumpOptions_MinTimestamp", const_cast<char**>(const_cast<const char**>(&kMinimumKey))},
        {"SWXDumpOptions_MaxTimestamp", const_cast<char**>(const_cast<const char**>(&kMaximumKey))}};
    if (withDumpFunction) symbols["swivex_dump_output_with_options_sync"] = reinterpret_cast<void*>(&dumpTrace);
    device.libraries.setLibrary(kTraceLibraryPath, std::move(symbols));
}

}  // namespace quorvix::simulate
