#include "swivex/stacks/ThreadIterator.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "swivex/Descriptor.h"
#include "swivex/ProcessNamespace.h"
#include "swivex/stacks/bpf/ThreadStacksProgram.h"

namespace quorvix::swivex::stacks {

char stateLetter(const swivex_thread_record& record) {
    struct Letter {
        std::uint32_t bits;
        char letter;
    };
    constexpr Letter kExit[] = {{0x20, 'Z'}, {0x10, 'X'}};
    // What isn't known of later kernels falls to the bits that it is made of. Idle is uninterruptible, not counted as
    // load; frozen and waiting for a lock of the real-time kernel show as uninterruptible.
    constexpr Letter kStates[] = {{0x40, 'P'}, {0x08, 't'}, {0x04, 'T'},   {0x402, 'I'},
                                  {0x02, 'D'}, {0x01, 'S'}, {0x8000, 'D'}, {0x1000, 'D'}};
    for (const Letter& exit : kExit) {
        if ((record.exit_state & exit.bits) == exit.bits) return exit.letter;
    }
    for (const Letter& state : kStates) {
        if ((record.state & state.bits) == state.bits) return state.letter;
    }
    return 'R';
}

#ifdef SWIVEX_THREAD_ITERATOR

void ThreadIterator::Unload::operator()(swivex_thread_stacks* program) const { swivex_thread_stacks_unload(program); }

int ThreadIterator::load() {
    if (!seesTheKernelsIds()) return ENOTSUP;
    swivex_thread_stacks* program = nullptr;
    if (const int error = swivex_thread_stacks_load(&program)) return error;
    program_.reset(program);
    return 0;
}

bool ThreadIterator::walk(pid_t pid, std::size_t most, std::vector<swivex_thread_record>& records) {
    int opened = -1;
    if (!program_ || swivex_thread_stacks_walk(program_.get(), pid, &opened) != 0) return false;
    const Descriptor walk(opened);
    // As many as the kernel hands over in one read.
    constexpr std::size_t kAtOnce = 48;
    std::size_t count = 0;
    for (;;) {
        const std::size_t wanted = std::min(kAtOnce, most - count);
        if (wanted == 0) break;
        records.resize(count + wanted);
        const ssize_t bytes = ::read(walk.get(), &records[count], wanted * sizeof(swivex_thread_record));
        if (bytes <= 0) break;
        count += static_cast<std::size_t>(bytes) / sizeof(swivex_thread_record);
    }
    records.resize(count);
    return count > 0;
}

std::vector<std::string> ThreadIterator::names(std::span<const std::uint64_t> addresses) {
    std::vector<std::string> all;
    while (all.size() < addresses.size()) {
        const std::span<const std::uint64_t> some =
            addresses.subspan(all.size(), std::min<std::size_t>(SWIVEX_SYMBOLS, addresses.size() - all.size()));
        const char* lines = nullptr;
        if (swivex_thread_stacks_name(program_.get(), some.data(), static_cast<swivex_u32>(some.size()), &lines) != 0) {
            break;
        }
        std::string_view left(lines);
        for (std::size_t i = 0; i < some.size(); ++i) {
            const std::size_t end = left.find('\n');
            // A last line that is cut off is no name. Without a name the kernel writes the number.
            const bool isName = end != std::string_view::npos && !left.starts_with("0x");
            all.emplace_back(isName ? left.substr(0, end) : std::string_view());
            left.remove_prefix(end == std::string_view::npos ? left.size() : end + 1);
        }
    }
    all.resize(addresses.size());
    return all;
}

std::uint64_t ThreadIterator::kernelTextStart() const {
    return program_ ? swivex_thread_stacks_text_start(program_.get()) : 0;
}

#else  // built without the tools that make the program

void ThreadIterator::Unload::operator()(swivex_thread_stacks*) const {}
int ThreadIterator::load() { return ENOSYS; }
bool ThreadIterator::walk(pid_t, std::size_t, std::vector<swivex_thread_record>&) { return false; }
std::vector<std::string> ThreadIterator::names(std::span<const std::uint64_t> addresses) {
    return std::vector<std::string>(addresses.size());
}
std::uint64_t ThreadIterator::kernelTextStart() const { return 0; }

#endif

}  // namespace quorvix::swivex::stacks
