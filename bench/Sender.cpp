#include "bench/Sender.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "bench/Bench.h"

namespace quorvix::bench {

Sender::Sender(std::function<void()> send) {
    int ends[2];
    require(pipe(ends) == 0, "pipe");
    process_ = fork();
    require(process_ >= 0, "fork");
    if (process_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[1]);
        char command;
        while (read(ends[0], &command, 1) == 1) send();
        _exit(0);
    }
    close(ends[0]);
    commands_ = ends[1];
}

Sender::~Sender() {
    close(commands_);
    // It may be in the middle of a run that nobody receives any more.
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
}

void Sender::start() { require(write(commands_, "s", 1) == 1, "the sender is started"); }

}  // namespace quorvix::bench
