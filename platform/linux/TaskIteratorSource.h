#pragma once

#include <cstdint>
#include <memory>

#include "platform/linux/ProcessSamples.h"

struct quorvix_task_program;

namespace quorvix::linuxos {

// The process table from the kernel's own task iterator: one system call for all threads, no file. Loaded at the first
// read, which takes some milliseconds. Fails where the kernel has none (before 6.7), where it may not be loaded, in a
// process namespace of its own, whose ids the kernel does not use, and in a build without it. One thread at a time.
class TaskIteratorSource final : public ProcessSource {
public:
    // How many there is place for at first; both tables double until everything fits.
    struct Places {
        std::uint32_t processes = 2048;
        std::uint32_t threads = 8192;
    };
    // Larger tables than this are not tried: about 100 MB.
    static constexpr std::uint32_t kMostThreads = 1u << 20;

    TaskIteratorSource() : TaskIteratorSource(Places{}) {}
    explicit TaskIteratorSource(Places places) : places_(places) {}

    int read(ProcessSamples& samples) override;

private:
    struct Unload {
        void operator()(quorvix_task_program* program) const;
    };

    int load();

    Places places_;
    std::unique_ptr<quorvix_task_program, Unload> program_;
};

}  // namespace quorvix::linuxos
