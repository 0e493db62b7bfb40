#include "platform/linux/ProcfsReader.h"

#include <fcntl.h>

#include "platform/linux/Descriptor.h"

namespace quorvix::linuxos {

std::string_view ProcfsReader::file(int directory, const char* path) {
    const Descriptor file(openat(directory, path, O_RDONLY | O_CLOEXEC));
    return taken(file ? ::read(file.get(), buffer_.data(), buffer_.size()) : -1);
}

std::string_view ProcfsReader::link(int directory, const char* path) {
    return taken(readlinkat(directory, path, buffer_.data(), buffer_.size()));
}

std::string_view ProcfsReader::taken(ssize_t count) {
    error_ = count < 0 ? errno : 0;
    if (count <= 0) return {};
    return {buffer_.data(), static_cast<std::size_t>(count)};
}

}  // namespace quorvix::linuxos
