#pragma once

#include <sys/types.h>

#include <string>

namespace quorvix::bench {

// Goes on in a file system of its own (demo/private-root), with hang tracing switched on in the preferences: nothing of
// the machine is touched. To be called first in main, with its arguments.
void enterPrivateRoot(char** arguments);

// The folder of the programs that were built with this one.
std::string programFolder();

// A program that tells its readiness as the daemon does. Ends with its object, asked to.
class ReadyProgram {
public:
    // Starts arguments[0] and waits until it is ready.
    explicit ReadyProgram(const char* const* arguments);
    ~ReadyProgram();
    ReadyProgram(const ReadyProgram&) = delete;
    ReadyProgram& operator=(const ReadyProgram&) = delete;

    pid_t pid() const { return pid_; }
    // From just before exec to the arrival of READY=1.
    double startMs() const { return startMs_; }

private:
    pid_t pid_ = -1;
    double startMs_ = 0;
};

}  // namespace quorvix::bench
