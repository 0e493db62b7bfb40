#include "platform/linux/RandomSource.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>

#include "platform/linux/UniformDraw.h"

namespace quorvix::linuxos {

namespace {

std::uint32_t nextWord() {
    std::uint32_t word = 0;
    while (true) {
        if (getrandom(&word, sizeof word, 0) == sizeof word) return word;
        // Every kernel that this runs on has the call, and a request this small is never cut short.
        if (errno != EINTR) std::abort();
    }
}

}  // namespace

std::uint32_t LinuxRandomSource::uniform(std::uint32_t bound) {
    if (bound == 0) std::abort();
    return drawUniform(bound, nextWord);
}

}  // namespace quorvix::linuxos
