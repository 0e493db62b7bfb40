#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include "platform/Files.h"
#include "simulate/ObservedContext.h"

namespace quorvix::simulate::observed {

inline std::string located(const FileLocation& file) {
    return std::string(file.directory) + "|" + std::string(file.name);
}

// The file system: every call can fail, a write can be short.
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

}  // namespace quorvix::simulate::observed
