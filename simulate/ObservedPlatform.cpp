#include "simulate/ObservedPlatform.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/swivex.h"

namespace quorvix::simulate {

namespace {

using sim::SimPlatform;

struct Context {
    SimPlatform& device;
    Trace& trace;
    FaultPlan& faults;
    std::map<int, std::string> openNames{};
    std::map<const void*, std::uint64_t> mappings{};
    std::uint64_t mappingsMade = 0;

    // Outside of work there is nobody who compares: start-up runs in work of its own on the main queue.
    Record& record(Op op, std::string what) { return trace.add(op, std::move(what)); }
    // The time of a slow call passes after the call was written down.
    void spend(Record& record, const Fault& fault) {
        if (fault.slow.count() == 0 || trace.queue() == QueueName::main) return;
        record.spent = fault.slow;
        device.scheduler.spend(fault.slow);
    }
};

std::string print(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

std::string located(const FileLocation& file) { return std::string(file.directory) + "|" + std::string(file.name); }

class Queue final : public WorkQueue {
public:
    Queue(Context& context, std::shared_ptr<WorkQueue> inner, QueueName name)
        : context_(context), inner_(std::move(inner)), name_(name) {}

    void async(Work work) override { inner_->async(observed(std::move(work))); }
    void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
        inner_->asyncAfter(delay, observed(std::move(work)));
    }
    void asyncAt(WallTime time, Work work) override { inner_->asyncAt(time, observed(std::move(work))); }
    std::unique_ptr<RepeatingTimer> makeTimer(Work handler) override {
        return inner_->makeTimer([&context = context_, name = name_, handler = std::move(handler)] {
            context.trace.beginWork(name);
            handler();
            context.trace.endWork();
        });
    }
    const std::string& label() const override { return inner_->label(); }

private:
    // What the work holds goes with it, inside of it.
    Work observed(Work work) const {
        return [&context = context_, name = name_, work = std::move(work)]() mutable {
            context.trace.beginWork(name);
            {
                const Work held = std::move(work);
                held();
            }
            context.trace.endWork();
        };
    }

    Context& context_;
    std::shared_ptr<WorkQueue> inner_;
    QueueName name_;
};

class Queues final : public QueueService {
public:
    explicit Queues(Context& context) : context_(context) {}
    std::shared_ptr<WorkQueue> makeSerialQueue(std::string_view label, QualityOfService quality) override {
        const QueueName name = label.ends_with("activationqueue") ? QueueName::activation
                               : label.ends_with("logoutput")     ? QueueName::output
                                                                  : QueueName::daemon;
        return std::make_shared<Queue>(context_, context_.device.queues.makeSerialQueue(label, quality), name);
    }
    [[noreturn]] void runMain() override {
        context_.device.scheduler.giveMainThread();
        throw sim::MainThreadGiven{};
    }

private:
    Context& context_;
};

class Log final : public SystemLog {
public:
    explicit Log(Context& context) : context_(context) {}
    bool debugLines = false;

    bool enabled(std::string_view, std::string_view, LogLevel level) noexcept override {
        return debugLines || level != LogLevel::debug;
    }
    void write(std::string_view, std::string_view category, LogLevel level, std::string_view text) override {
        const Op op = category.empty() ? Op::logLine : category == "appLaunch" ? Op::launchLine : Op::platformLine;
        const char* const shown = level == LogLevel::standard ? "D:" : level == LogLevel::info ? "I:" : "d:";
        context_.record(op, shown + std::string(text));
    }

private:
    Context& context_;
};

class Counters final : public CounterService {
public:
    explicit Counters(Context& context) : context_(context) {}
    void addToScalar(std::string_view key, std::int64_t value) override {
        context_.record(Op::counterAdd, std::string(key) + " " + std::to_string(value));
    }
    void setScalar(std::string_view key, std::int64_t value) override {
        context_.record(Op::counterSet, std::string(key) + " " + std::to_string(value));
    }
    void pushToDistribution(std::string_view key, double value) override {
        context_.record(Op::counterPush, std::string(key) + " " + print(value));
    }

private:
    Context& context_;
};

class ObservedFiles final : public Files {
public:
    explicit ObservedFiles(Context& context) : context_(context) {}

    Result<FileStatus> status(std::string_view path) override {
        return call(Op::statusPath, std::string(path), [&] { return files().status(path); });
    }
    Result<void> unlink(std::string_view path) override {
        return call(Op::unlinkPath, std::string(path), [&] { return files().unlink(path); });
    }
    Result<void> makeDirectory(std::string_view path, std::uint32_t mode) override {
        return call(Op::makeDirectory, std::string(path) + " " + std::to_string(mode),
                    [&] { return files().makeDirectory(path, mode); });
    }
    Result<int> createFile(const FileLocation& file, std::uint32_t mode, int protectionClass) override {
        return open(Op::createFile, file, mode, protectionClass,
                    [&] { return files().createFile(file, mode, protectionClass); });
    }
    Result<int> createNewFile(const FileLocation& file, std::uint32_t mode, int protectionClass) override {
        return open(Op::createNewFile, file, mode, protectionClass,
                    [&] { return files().createNewFile(file, mode, protectionClass); });
    }
    Result<void> unlinkFile(const FileLocation& file) override {
        return call(Op::unlinkFile, located(file), [&] { return files().unlinkFile(file); });
    }
    Result<void> moveFile(const FileLocation& from, const FileLocation& to) override {
        return call(Op::moveFile, located(from) + " -> " + located(to), [&] { return files().moveFile(from, to); });
    }
    Result<void> replaceFile(const FileLocation& from, const FileLocation& to) override {
        return call(Op::replaceFile, located(from) + " -> " + located(to),
                    [&] { return files().replaceFile(from, to); });
    }
    void close(int descriptor) override {
        context_.record(Op::closeFile, forget(descriptor));
        files().close(descriptor);
    }
    // A file system may say at the end only that what was written is lost.
    Result<void> closeChecked(int descriptor) override {
        const std::string name = forget(descriptor);
        const Result<void> closed = files().closeChecked(descriptor);
        return call(Op::closeChecked, name, [&] { return closed; });
    }
    Result<void> write(int descriptor, std::string_view bytes) override {
        const Fault fault = context_.faults.take(Op::writeFile);
        const Result<void> written =
            fault.isShort ? files().write(descriptor, bytes.substr(0, bytes.size() / 2)) : Result<void>{};
        const Result<void> result = fault.isShort   ? Result<void>(ErrorCode{ENOSPC})
                                    : fault.fails() ? Result<void>(fault.error)
                                                    : files().write(descriptor, bytes);
        Record& record = context_.record(Op::writeFile, nameOf(descriptor) + "|" + std::string(bytes));
        if (!written || !result) record.error = result.error();
        context_.spend(record, fault);
        return result;
    }

private:
    sim::SimFiles& files() { return context_.device.files; }
    std::string nameOf(int descriptor) {
        const auto found = context_.openNames.find(descriptor);
        return found == context_.openNames.end() ? "(not open)" : found->second;
    }
    std::string forget(int descriptor) {
        const std::string name = nameOf(descriptor);
        context_.openNames.erase(descriptor);
        return name;
    }
    template <class Run>
    auto call(Op op, std::string what, Run run) -> decltype(run()) {
        const Fault fault = context_.faults.take(op);
        auto result = fault.fails() ? decltype(run())(fault.error) : run();
        Record& record = context_.record(op, std::move(what));
        if (!result) record.error = result.error();
        if constexpr (std::is_same_v<decltype(run()), Result<FileStatus>>) {
            if (result) record.number = result->isDirectory;
        }
        context_.spend(record, fault);
        return result;
    }
    template <class Run>
    Result<int> open(Op op, const FileLocation& file, std::uint32_t mode, int protectionClass, Run run) {
        const auto opened = call(op, located(file) + " " + std::to_string(mode) + " " + std::to_string(protectionClass),
                                 std::move(run));
        if (opened) context_.openNames[*opened] = std::string(file.name);
        return opened;
    }

    Context& context_;
};

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

class Store final : public PreferencesStore {
public:
    explicit Store(Context& context) : context_(context) {}
    std::optional<PropertyListValue> value(std::string_view key, const PreferenceDomain& domain) override {
        const Fault fault = context_.faults.take(Op::readPreference);
        Record& record = context_.record(Op::readPreference, named(key, domain));
        record.error = fault.error;
        return fault.fails() ? std::nullopt : context_.device.preferences.value(key, domain);
    }
    void setValue(std::string_view key, std::optional<PropertyListValue> value,
                  const PreferenceDomain& domain) override {
        context_.record(Op::setPreference, named(key, domain) + (value ? "" : " removed"));
        context_.device.preferences.setValue(key, std::move(value), domain);
    }
    bool synchronise(const PreferenceDomain& domain) override {
        const Fault fault = context_.faults.take(Op::synchronise);
        Record& record = context_.record(Op::synchronise, std::string(domain.name));
        record.error = fault.error;
        context_.spend(record, fault);
        return !fault.fails() && context_.device.preferences.synchronise(domain);
    }

private:
    static std::string named(std::string_view key, const PreferenceDomain& domain) {
        return std::string(domain.name) + "|" + std::string(domain.user) + "|" + std::string(key);
    }
    Context& context_;
};

class Lists final : public PropertyListReader {
public:
    explicit Lists(Context& context) : context_(context) {}
    std::optional<PropertyListDictionary> readDictionary(std::string_view path) override {
        const Fault fault = context_.faults.take(Op::readProfile);
        context_.record(Op::readProfile, std::string(path)).error = fault.error;
        return fault.fails() ? std::nullopt : context_.device.propertyLists.readDictionary(path);
    }

private:
    Context& context_;
};

class Notifications final : public NotificationService {
public:
    explicit Notifications(Context& context) : context_(context) {}
    std::unique_ptr<NotificationToken> registerHandler(std::string_view name, const std::shared_ptr<WorkQueue>& queue,
                                                       Work handler) override {
        context_.record(Op::registerHandler, std::string(name) + " on " + queue->label());
        return context_.device.notifications.registerHandler(name, queue, std::move(handler));
    }

private:
    Context& context_;
};

class Processes final : public ProcessQueries {
public:
    explicit Processes(Context& context) : context_(context) {}
    std::size_t executablePath(std::int32_t pid, std::span<char> buffer) override {
        const Fault fault = context_.faults.take(Op::executablePath);
        const std::size_t length = fault.fails() ? 0 : context_.device.processes.executablePath(pid, buffer);
        Record& record = context_.record(Op::executablePath, std::to_string(pid));
        if (length == 0) record.error = fault.fails() ? fault.error : ErrorCode{ESRCH};
        context_.spend(record, fault);
        return length;
    }
    std::int32_t listAllPids(std::int32_t* pids, std::int32_t bufferBytes) override {
        const Fault fault = context_.faults.take(Op::listPids);
        Record& record = context_.record(Op::listPids, pids ? "into a buffer" : "for the size");
        record.error = fault.error;
        context_.spend(record, fault);
        return fault.fails() ? -1 : context_.device.processes.listAllPids(pids, bufferBytes);
    }
    Result<void> resourceUsage(std::int32_t pid, ResourceUsage& usage) override {
        const Fault fault = context_.faults.take(Op::resourceUsage);
        const Result<void> answer =
            fault.fails() ? Result<void>(fault.error) : context_.device.processes.resourceUsage(pid, usage);
        if (!answer) context_.record(Op::resourceUsage, std::to_string(pid)).error = answer.error();
        return answer;
    }
    Result<std::size_t> processName(std::int32_t pid, std::span<char> buffer) override {
        const Fault fault = context_.faults.take(Op::processName);
        const Result<std::size_t> answer =
            fault.fails() ? Result<std::size_t>(fault.error) : context_.device.processes.processName(pid, buffer);
        if (!answer) context_.record(Op::processName, std::to_string(pid)).error = answer.error();
        return answer;
    }

private:
    Context& context_;
};

class Host final : public HostStatistics {
public:
    explicit Host(Context& context) : context_(context) {}
    Result<void> vmStatistics64(vm_statistics64& statistics, std::uint32_t count) override {
        const Fault fault = context_.faults.take(Op::hostStatistics);
        Record& record = context_.record(Op::hostStatistics, std::to_string(count));
        record.error = fault.error;
        if (fault.fails()) return fault.error;
        return context_.device.host.vmStatistics64(statistics, count);
    }
    std::uint64_t pageSize() override { return context_.device.host.pageSize(); }
    Result<std::int64_t> bootTimeSeconds() override {
        const Fault fault = context_.faults.take(Op::bootTime);
        Record& record = context_.record(Op::bootTime, {});
        record.error = fault.error;
        if (fault.fails()) return fault.error;
        return context_.device.host.bootTimeSeconds();
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
        void* const library = context_.device.libraries.open(path);
        if (!library) context_.record(Op::libraryOpen, std::string(path)).error = ErrorCode{ENOENT};
        return library;
    }
    void* symbol(void* library, const char* name) override { return context_.device.libraries.symbol(library, name); }

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
        return result;
    }
    Context& context_;
};

class Random final : public RandomSource {
public:
    explicit Random(Context& context) : context_(context) {}
    std::uint32_t uniform(std::uint32_t bound) override {
        const std::uint32_t drawn = context_.device.random.uniform(bound);
        context_.record(Op::uniform, std::to_string(bound)).number = drawn;
        return drawn;
    }

private:
    Context& context_;
};

class Display final : public RenderServer {
public:
    explicit Display(Context& context) : context_(context) {}
    std::uint32_t port() override {
        const std::uint32_t port = context_.device.renderServer.port();
        context_.record(Op::hudPort, {}).number = port;
        return port;
    }
    void setDebugMessage(std::uint32_t port, std::optional<std::string_view> text) override {
        context_.record(Op::hudMessage, text ? "\"" + std::string(*text) + "\"" : "none").number = port;
    }
    void releasePort(std::uint32_t port) override {
        context_.record(Op::hudRelease, {}).number = port;
        context_.device.renderServer.releasePort(port);
    }

private:
    Context& context_;
};

class Lifecycle final : public ProcessLifecycle {
public:
    explicit Lifecycle(Context& context) : context_(context) {}
    void ready() override { context_.record(Op::ready, {}); }
    [[noreturn]] void exit(int status) override {
        context_.record(Op::exitProcess, std::to_string(status));
        context_.trace.endWork();
        throw sim::SimulatedExit{status};
    }

private:
    Context& context_;
};

class Power final : public PowerLog {
public:
    explicit Power(Context& context) : context_(context) {}
    void sendEvent(std::int32_t category, std::string_view name, const PowerLogDictionary& dictionary) override {
        std::string what = std::to_string(category) + " " + std::string(name) + " ";
        appendTextForm(what, dictionary);
        Record& record = context_.record(Op::powerEvent, std::move(what));
        context_.spend(record, context_.faults.take(Op::powerEvent));
    }

private:
    Context& context_;
};

class Intervals final : public Signposts {
public:
    explicit Intervals(Context& context) : context_(context) {}
    bool enabled() override { return context_.device.signposts.enabled(); }
    void intervalBegin(std::uint32_t identifier, std::string_view name, std::string_view format,
                       const SignpostTelemetry& telemetry) override {
        add(Op::intervalBegin, identifier, name, format, telemetry);
    }
    void intervalEnd(std::uint32_t identifier, std::string_view name, std::string_view format,
                     const SignpostTelemetry& telemetry) override {
        add(Op::intervalEnd, identifier, name, format, telemetry);
    }

private:
    void add(Op op, std::uint32_t identifier, std::string_view name, std::string_view format,
             const SignpostTelemetry& telemetry) {
        std::string what = std::to_string(identifier) + "|" + std::string(name) + "|" + std::string(format) + "|" +
                           std::string(telemetry.string1);
        for (const auto& number : {telemetry.number1, telemetry.number2}) {
            what += "|" + (number ? std::to_string(*number) : "-");
        }
        context_.record(op, std::move(what));
    }
    Context& context_;
};

class Memory final : public ProcessMemory {
public:
    explicit Memory(Context& context) : context_(context) {}
    Result<std::vector<MemoryPriority>> priorityList() override {
        const Fault fault = context_.faults.take(Op::priorityList);
        context_.record(Op::priorityList, {}).error = fault.error;
        if (fault.fails()) return fault.error;
        return context_.device.processMemory.priorityList();
    }
    Result<std::string> executablePath(std::int32_t pid) override {
        const Fault fault = context_.faults.take(Op::memoryPath);
        context_.record(Op::memoryPath, std::to_string(pid)).error = fault.error;
        if (fault.fails()) return fault.error;
        return context_.device.processMemory.executablePath(pid);
    }
    Result<std::uint64_t> physicalFootprint(std::int32_t pid) override {
        const Fault fault = context_.faults.take(Op::footprint);
        context_.record(Op::footprint, std::to_string(pid)).error = fault.error;
        if (fault.fails()) return fault.error;
        return context_.device.processMemory.physicalFootprint(pid);
    }
    std::uint64_t assertions(std::int32_t pid) override { return context_.device.processMemory.assertions(pid); }

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

    Platform platform{.tickClock = context.device.tickClock,
                      .wallClock = context.device.wallClock,
                      .queues = queues,
                      .messages = context.device.messages,
                      .regions = regions,
                      .notifications = notifications,
                      .preferences = preferences,
                      .propertyLists = propertyLists,
                      .capabilities = context.device.capabilities,
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
                      .systemInformation = context.device.systemInformation,
                      .processMemory = processMemory,
                      .kernelMemory = context.device.kernelMemory};
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
