#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/MessageSocket.h"

namespace quorvix::tests {

// A forked child that runs `body` and ends; in a process group of its own, so that what it forks is ended with it.
class ChildProcess {
public:
    template <class Body>
    explicit ChildProcess(Body body) : pid_(fork()) {
        if (pid_ != 0) return;
        setpgid(0, 0);
        body();
        _exit(0);
    }
    ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)), status_(other.status_) {}
    ~ChildProcess() {
        if (pid_ <= 0) return;
        killGroup();
        wait();
    }

    pid_t pid() const { return pid_; }
    // Waits for its end and gives its wait status.
    int wait() {
        if (!waited_) waitpid(pid_, &status_, 0);
        waited_ = true;
        return status_;
    }
    // Ends the child and what it has forked.
    void killGroup() const {
        if (kill(-pid_, SIGKILL) != 0 && !waited_) kill(pid_, SIGKILL);
    }

private:
    pid_t pid_;
    int status_ = 0;
    bool waited_ = false;
};

inline std::vector<int> descriptorNumbers() {
    std::vector<int> numbers;
    DIR* folder = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(folder)) {
        if (entry->d_name[0] != '.' && std::stoi(entry->d_name) != dirfd(folder)) {
            numbers.push_back(std::stoi(entry->d_name));
        }
    }
    closedir(folder);
    return numbers;
}

inline int openDescriptors() { return static_cast<int>(descriptorNumbers().size()); }

// Takes every descriptor that is left, so that the process has none.
inline std::vector<Descriptor> takeAllDescriptors() {
    std::vector<Descriptor> taken;
    for (;;) {
        Descriptor one(open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (!one) return taken;
        taken.push_back(std::move(one));
    }
}

// This process's socket that listens at the path; -1: none.
inline int listeningDescriptor(const std::string& path) {
    for (const int number : descriptorNumbers()) {
        sockaddr_un address{};
        socklen_t length = sizeof address;
        int listening = 0;
        socklen_t optionLength = sizeof listening;
        if (getsockname(number, reinterpret_cast<sockaddr*>(&address), &length) != 0) continue;
        if (getsockopt(number, SOL_SOCKET, SO_ACCEPTCONN, &listening, &optionLength) != 0 || listening != 1) continue;
        if (path == address.sun_path) return number;
    }
    return -1;
}

}  // namespace quorvix::tests
