#pragma once

#include <unistd.h>

#include <utility>

namespace quorvix::swivex {

// Owns one file descriptor, or none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) reset(std::exchange(other.descriptor_, -1));
        return *this;
    }
    ~Descriptor() { reset(); }

    explicit operator bool() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }
    void reset(int descriptor = -1) {
        const int old = std::exchange(descriptor_, descriptor);
        if (old >= 0) ::close(old);
    }

private:
    int descriptor_ = -1;
};

}  // namespace quorvix::swivex
