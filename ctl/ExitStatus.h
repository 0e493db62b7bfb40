#pragma once

namespace quorvix::ctl {

enum class ExitStatus : int {
    done = 0,
    failed = 1,      // understood, but it could not be done
    usage = 2,       // the command line makes no sense; nothing was done
    notRunning = 3,  // it needs quorvixd, which does not run
};

}  // namespace quorvix::ctl
