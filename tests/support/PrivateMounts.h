#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace quorvix::tests {

// Runs `work` in a forked child with mounts of its own, where it may mount what it likes. Its answer is the child's
// exit status (0: as expected). Needs root: kCannotUnshare without.
inline constexpr int kCannotUnshare = 77;

inline int runInPrivateMounts(const std::function<int()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            _exit(kCannotUnshare);
        }
        _exit(work());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace quorvix::tests
