#pragma once

#include <unistd.h>

#include <utility>

namespace quorvix::linuxos {

// Owns one file descriptor, or none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(); }

    explicit operator bool() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }
    int release() { return std::exchange(descriptor_, -1); }
    void reset(int descriptor = -1) {
        const int old = std::exchange(descriptor_, descriptor);
        if (old >= 0) ::close(old);
    }

private:
    int descriptor_ = -1;
};

}  // namespace quorvix::linuxos
