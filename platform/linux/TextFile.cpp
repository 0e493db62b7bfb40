#include "platform/linux/TextFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/linux/Descriptor.h"

namespace quorvix::linuxos {

Result<std::string> readTextFile(const std::string& path, std::size_t limit) {
    constexpr std::size_t kFirstPiece = 8192;
    // Non-blocking: a FIFO in the file's place must not hold us up.
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) return ErrorCode{errno};
    std::string text;
    std::size_t length = 0;
    while (length < limit) {
        text.resize(std::min(limit, std::max(kFirstPiece, 2 * length)));
        const ssize_t count = ::read(file.get(), text.data() + length, text.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return ErrorCode{errno};
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    text.resize(length);
    return text;
}

}  // namespace quorvix::linuxos
