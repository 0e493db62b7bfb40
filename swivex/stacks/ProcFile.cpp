#include "swivex/stacks/ProcFile.h"

#include <fcntl.h>

#include <algorithm>

#include "swivex/Descriptor.h"

namespace quorvix::swivex::stacks {

std::string readProcFile(pid_t id, std::string_view name, std::size_t mostBytes) {
    std::string text;
    const Descriptor file(::open(("/proc/" + std::to_string(id) + "/").append(name).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return text;
    constexpr std::size_t kFirstBytes = 16384;
    std::size_t length = 0;
    for (;;) {
        if (text.size() - length < kFirstBytes / 4) text.resize(std::max(kFirstBytes, text.size() * 2));
        const ssize_t bytes = ::read(file.get(), text.data() + length, text.size() - length);
        if (bytes <= 0) break;
        length += static_cast<std::size_t>(bytes);
        if (length >= mostBytes) break;
    }
    text.resize(std::min(length, mostBytes));
    return text;
}

}  // namespace quorvix::swivex::stacks
