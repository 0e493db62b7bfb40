#pragma once

#include <unistd.h>

#include <utility>

namespace quorvix::linuxos {

// Owns a file descriptor; -1 owns nothing.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        // An error of close is of no use: what must be on disk was synced before.
        if (descriptor_ >= 0) ::close(descriptor_);
    }

    explicit operator bool() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }

private:
    int descriptor_ = -1;
};

}  // namespace quorvix::linuxos
