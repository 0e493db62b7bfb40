#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "platform/Json.h"
#include "platform/ResourceUsage.h"
#include "platform/Result.h"
#include "platform/WorkQueue.h"

// The platform's smallest services, one or two operations each.

namespace quorvix {

// The aggregate counters service. Callable from any thread; never blocks the caller on the disk.
class CounterService {
public:
    virtual ~CounterService() = default;
    virtual void addToScalar(std::string_view key, std::int64_t value) = 0;
    virtual void setScalar(std::string_view key, std::int64_t value) = 0;
    // `process` is the name that the key ends with: names may hold dots, so the key does not tell it.
    virtual void pushToDistribution(std::string_view key, std::string_view process, double value) = 0;
};

// Per-process queries. Listing the pids freezes a table, from which usage and name are answered on the same thread
// until the next listing; a pid that was gone by then fails with ESRCH.
class ProcessQueries {
public:
    virtual ~ProcessQueries() = default;
    // Writes the executable's path into buffer (NUL-terminated where it fits) and returns its length; 0 on failure.
    virtual std::size_t executablePath(std::int32_t pid, std::span<char> buffer) = 0;
    // Without a buffer: the bytes that all pids need, which also freezes the table. Else fills the buffer with as many
    // as fit and zeroes the rest of it; the bytes filled. 0 or below: failed.
    virtual std::int32_t listAllPids(std::int32_t* pids, std::int32_t bufferBytes) = 0;
    // ESRCH: no such process.
    virtual Result<void> resourceUsage(std::int32_t pid, ResourceUsage& usage) = 0;
    // Writes the name, NUL-terminated and cut to the buffer; its length. Fails instead of giving 0.
    virtual Result<std::size_t> processName(std::int32_t pid, std::span<char> buffer) = 0;
};

// Run-time library loading, lazy binding.
class LibraryLoader {
public:
    virtual ~LibraryLoader() = default;
    // The library's handle, or nullptr. Never closed again.
    virtual void* open(std::string_view path) = 0;
    // The symbol's address, or nullptr.
    virtual void* symbol(void* library, const char* name) = 0;
};

class RandomSource {
public:
    virtual ~RandomSource() = default;
    // Uniform in 0..bound-1, without modulo bias. Precondition: bound > 0.
    virtual std::uint32_t uniform(std::uint32_t bound) = 0;
};

// The render server's on-screen debug message.
class RenderServer {
public:
    virtual ~RenderServer() = default;
    // 0: there is no render server.
    virtual std::uint32_t port() = 0;
    // Nothing clears the message.
    virtual void setDebugMessage(std::uint32_t port, std::optional<std::string_view> text) = 0;
    virtual void releasePort(std::uint32_t port) = 0;
};

// The process as the service manager sees it.
class ProcessLifecycle {
public:
    virtual ~ProcessLifecycle() = default;
    // Tells that the service is up. Called once, before the preferences are first applied.
    virtual void ready() = 0;
    // Ends the process: stores are flushed (bounded), no destructor runs.
    [[noreturn]] virtual void exit(int status) = 0;
};

// The daemon's state for the operator's tool: a root-only socket beside the endpoint, which takes no commands.
class StateService {
public:
    virtual ~StateService() = default;
    // Serves `provider`'s object, made on `queue`, to everyone who connects.
    virtual void publish(std::string_view endpoint, const std::shared_ptr<WorkQueue>& queue,
                         std::function<JsonObject()> provider) = 0;
};

}  // namespace quorvix
