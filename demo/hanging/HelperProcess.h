// A process that helps an app to hang.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>

namespace quorvix::demo {

// Runs a function in a process of its own, with a name of its own. Ends with its owner, and with the app however that
// ends.
class HelperProcess {
public:
    // `body` gets the app's pid. Null with errno when no process can be made.
    static std::unique_ptr<HelperProcess> start(const char* name, const std::function<void(pid_t)>& body);
    ~HelperProcess();
    HelperProcess(const HelperProcess&) = delete;
    HelperProcess& operator=(const HelperProcess&) = delete;

private:
    explicit HelperProcess(pid_t pid) : pid_(pid) {}

    pid_t pid_;
};

}  // namespace quorvix::demo
