#include "demo/hanging/HelperProcess.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorvix::demo {

std::unique_ptr<HelperProcess> HelperProcess::start(const char* name, const std::function<void(pid_t)>& body) {
    const pid_t app = getpid();
    const pid_t pid = fork();
    if (pid < 0) return nullptr;
    if (pid == 0) {
        // The second line is for an app that ended before the first.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != app) _exit(1);
        prctl(PR_SET_NAME, name);
        body(app);
        _exit(0);
    }
    return std::unique_ptr<HelperProcess>(new HelperProcess(pid));
}

HelperProcess::~HelperProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

}  // namespace quorvix::demo
