#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
#include "platform/Platform.h"
#include "simulate/ObservedContext.h"

namespace quorvix::simulate::observed {

// What the daemon asks: of processes, the host, preferences and chance.

class Store final : public PreferencesStore {
public:
    explicit Store(Context& context) : context_(context) {}
    std::optional<PropertyListValue> value(std::string_view key, const PreferenceDomain& domain) override {
        const Fault fault = context_.faults.take(Op::readPreference);
        Record& record = context_.record(Op::readPreference, named(key, domain));
        record.error = fault.error;
        context_.spend(record, fault);
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
        Record& record = context_.record(Op::readProfile, std::string(path));
        record.error = fault.error;
        context_.spend(record, fault);
        return fault.fails() ? std::nullopt : context_.device.propertyLists.readDictionary(path);
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
        std::int32_t given = -1;
        if (!fault.fails()) {
            // Half of the processes have gone since the size was asked for.
            const std::int32_t room = pids && fault.isShort ? bufferBytes / 8 * 4 : bufferBytes;
            if (pids) std::memset(pids, 0, static_cast<std::size_t>(bufferBytes));
            given = context_.device.processes.listAllPids(pids, room);
        }
        record.number = static_cast<std::uint64_t>(given) / 4;
        context_.spend(record, fault);
        return given;
    }
    Result<void> resourceUsage(std::int32_t pid, ResourceUsage& usage) override {
        const Fault fault = context_.faults.take(Op::resourceUsage);
        const Result<void> answer =
            fault.fails() ? Result<void>(fault.error) : context_.device.processes.resourceUsage(pid, usage);
        note(Op::resourceUsage, pid, answer, fault);
        return answer;
    }
    Result<std::size_t> processName(std::int32_t pid, std::span<char> buffer) override {
        const Fault fault = context_.faults.take(Op::processName);
        const Result<std::size_t> answer =
            fault.fails() ? Result<std::size_t>(fault.error) : context_.device.processes.processName(pid, buffer);
        note(Op::processName, pid, answer, fault);
        return answer;
    }

private:
    // There are many of these: only what went wrong is written down.
    template <class T>
    void note(Op op, std::int32_t pid, const Result<T>& answer, const Fault& fault) {
        if (answer && fault.slow.count() == 0) return;
        Record& record = context_.record(op, std::to_string(pid));
        if (!answer) record.error = answer.error();
        context_.spend(record, fault);
    }

    Context& context_;
};

class Host final : public HostStatistics {
public:
    explicit Host(Context& context) : context_(context) {}
    Result<void> vmStatistics64(vm_statistics64& statistics, std::uint32_t count) override {
        const Fault fault = context_.faults.take(Op::hostStatistics);
        Record& record = context_.record(Op::hostStatistics, std::to_string(count));
        record.error = fault.error;
        context_.spend(record, fault);
        if (fault.fails()) return fault.error;
        return context_.device.host.vmStatistics64(statistics, count);
    }
    std::uint64_t pageSize() override { return context_.device.host.pageSize(); }
    Result<std::int64_t> bootTimeSeconds() override {
        const Fault fault = context_.faults.take(Op::bootTime);
        Record& record = context_.record(Op::bootTime, {});
        record.error = fault.error;
        context_.spend(record, fault);
        if (fault.fails()) return fault.error;
        return context_.device.host.bootTimeSeconds();
    }

private:
    Context& context_;
};

class Memory final : public ProcessMemory {
public:
    explicit Memory(Context& context) : context_(context) {}
    Result<std::vector<MemoryPriority>> priorityList() override {
        const Fault fault = asked(Op::priorityList, {});
        if (fault.fails()) return fault.error;
        return context_.device.processMemory.priorityList();
    }
    Result<std::string> executablePath(std::int32_t pid) override {
        const Fault fault = asked(Op::memoryPath, std::to_string(pid));
        if (fault.fails()) return fault.error;
        return context_.device.processMemory.executablePath(pid);
    }
    Result<std::uint64_t> physicalFootprint(std::int32_t pid) override {
        const Fault fault = asked(Op::footprint, std::to_string(pid));
        if (fault.fails()) return fault.error;
        return context_.device.processMemory.physicalFootprint(pid);
    }
    std::uint64_t assertions(std::int32_t pid) override {
        const Fault fault = context_.faults.take(Op::assertions);
        if (!fault.fails()) return context_.device.processMemory.assertions(pid);
        context_.record(Op::assertions, std::to_string(pid)).error = fault.error;
        return 0;
    }

private:
    Fault asked(Op op, std::string what) {
        const Fault fault = context_.faults.take(op);
        Record& record = context_.record(op, std::move(what));
        record.error = fault.error;
        context_.spend(record, fault);
        return fault;
    }
    Context& context_;
};

// What these can't find out they leave out: a fault is an answer with nothing in it.
class Version final : public SystemInformation {
public:
    explicit Version(Context& context) : context_(context) {}
    SystemVersion version() override {
        return context_.leavesOut(Op::systemVersion) ? SystemVersion{} : context_.device.systemInformation.version();
    }
    std::string machine() override { return context_.device.systemInformation.machine(); }

private:
    Context& context_;
};

class Kernel final : public KernelMemory {
public:
    explicit Kernel(Context& context) : context_(context) {}
    KernelMemoryInformation information() override {
        if (context_.leavesOut(Op::kernelMemory)) return {};
        return context_.device.kernelMemory.information();
    }
    std::vector<KernelExtension> loadedExtensions() override {
        if (context_.leavesOut(Op::extensions)) return {};
        return context_.device.kernelMemory.loadedExtensions();
    }
    std::unique_ptr<SymbolResolver> makeSymbolResolver() override {
        if (context_.leavesOut(Op::symbolResolver)) return nullptr;
        return context_.device.kernelMemory.makeSymbolResolver();
    }

private:
    Context& context_;
};

class Capabilities final : public DeviceCapabilities {
public:
    explicit Capabilities(Context& context) : context_(context) {}
    bool booleanAnswer(std::string_view question) override {
        return !context_.leavesOut(Op::capability) && context_.device.capabilities.booleanAnswer(question);
    }

private:
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

}  // namespace quorvix::simulate::observed
