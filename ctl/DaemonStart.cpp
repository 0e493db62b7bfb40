#include "ctl/DaemonStart.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace quorvix::ctl {

namespace {

constexpr const char* kSystemdIsRunning = "/run/systemd/system";
constexpr const char* kInitScript = "/etc/init.d/quorvixd";

Result<void> run(const char* program, const char* const* arguments) {
    pid_t child = 0;
    if (const int error =
            ::posix_spawnp(&child, program, nullptr, nullptr, const_cast<char* const*>(arguments), environ);
        error != 0) {
        return ErrorCode{error};
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return ErrorCode{errno};
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return ErrorCode{EIO};
    return {};
}

}  // namespace

Result<void> startDaemon() {
    if (::access(kSystemdIsRunning, F_OK) == 0) {
        constexpr const char* kArguments[] = {"systemctl", "start", "quorvixd.service", nullptr};
        return run("systemctl", kArguments);
    }
    if (::access(kInitScript, X_OK) == 0) {
        constexpr const char* kArguments[] = {kInitScript, "start", nullptr};
        return run(kInitScript, kArguments);
    }
    return ErrorCode{ENOSYS};
}

}  // namespace quorvix::ctl
