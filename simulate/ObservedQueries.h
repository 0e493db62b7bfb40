#pragma once

#include <cerrno>
#include <cstdint>
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
