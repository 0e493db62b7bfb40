#include "swivex/SmallFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "swivex/Descriptor.h"

namespace quorvix::swivex {

namespace {

// 0, or the error number.
int readInto(int folder, const char* path, std::string& text, std::size_t longest) {
    text.clear();
    const Descriptor file(::openat(folder, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) return errno;
    constexpr std::size_t kFirst = 4096;
    std::size_t used = 0;
    while (used < longest) {
        const std::size_t room = std::min(longest - used, std::max(kFirst, used));
        text.resize(used + room);
        const ssize_t count = ::read(file.get(), text.data() + used, room);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            const int error = errno;
            text.clear();
            return error;
        }
        if (count == 0) break;
        used += static_cast<std::size_t>(count);
    }
    text.resize(used);
    return 0;
}

}  // namespace

std::string errorText(std::string_view name, int error) {
    return std::string(name) + ": " + std::generic_category().message(error);
}

Outcome<std::string> readSmallFile(int folder, const char* path, std::size_t longest) {
    std::string text;
    if (const int error = readInto(folder, path, text, longest); error != 0) return Problem{errorText(path, error)};
    return text;
}

Outcome<std::string> readSmallFile(const std::string& path, std::size_t longest) {
    return readSmallFile(AT_FDCWD, path.c_str(), longest);
}

bool readSmallFileInto(int folder, const char* path, std::string& text, std::size_t longest) {
    return readInto(folder, path, text, longest) == 0;
}

Outcome<bool> writeSmallFile(const std::string& path, std::string_view text) {
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) return Problem{errorText(path, errno)};
    if (::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return Problem{errorText(path, errno)};
    }
    return true;
}

}  // namespace quorvix::swivex
