#include "ctl/ActivationRun.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ostream>

#include "activation/AppActivation.h"
#include "ctl/PreferenceText.h"
#include "ctl/ToolPlatform.h"
#include "platform/Platform.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/Utf8.h"

namespace quorvix::ctl {

namespace {

constexpr std::string_view kOutputPrefix = "QXActivationStats: Output ";

// The renderings hold the names of processes as they are; here they may meet a terminal. Their own lines stay lines.
std::string forTerminal(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find_first_of("\n\t"), text.size());
        shown += printable(linuxos::withReplacementCharacters(text.substr(0, end)));
        shown += text.substr(end, 1);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return shown;
}

// The JSON rendering is a debug line of the log: here it is what was asked for. Default-level lines are for the
// operator; the others are not shown. One for the process: the renderings keep hold of the first log they see.
class RunLog final : public SystemLog {
public:
    static RunLog& shared() {
        static RunLog log;
        return log;
    }
    void attach(const ToolServices* services) { services_ = services; }
    bool enabled(std::string_view, std::string_view, LogLevel level) noexcept override {
        return services_ && level != LogLevel::info;
    }
    void write(std::string_view, std::string_view, LogLevel level, std::string_view text) override {
        if (level == LogLevel::standard) services_->error << "quorvixctl: " << forTerminal(text) << "\n";
        if (level == LogLevel::debug && text.starts_with(kOutputPrefix)) {
            services_->out << forTerminal(text.substr(kOutputPrefix.size()));
        }
    }

private:
    const ToolServices* services_ = nullptr;
};

class RunConsole final : public Console {
public:
    explicit RunConsole(const ToolServices& services) : services_(services) {}
    void log(std::string_view text) override { services_.out << forTerminal(text); }
    void print(std::string_view text) override { services_.out << forTerminal(text); }

private:
    const ToolServices& services_;
};

// Set while it lives.
class RunPlatform {
public:
    explicit RunPlatform(const ToolServices& services) : console_(services) {
        RunLog::shared().attach(&services);
        setPlatform(&services_);
    }
    ~RunPlatform() {
        setPlatform(nullptr);
        RunLog::shared().attach(nullptr);
    }
    RunPlatform(const RunPlatform&) = delete;
    RunPlatform& operator=(const RunPlatform&) = delete;

private:
    RunConsole console_;
    Platform services_ = toolPlatform(RunLog::shared(), console_);
};

// A child that waits to become the command, so that the first snapshot holds its pid and none of its work.
class WaitingCommand {
public:
    // Call before any thread or signal mask is made: the command inherits both ways.
    explicit WaitingCommand(const std::vector<std::string>& command) {
        int go[2];
        int failure[2];
        if (pipe2(go, O_CLOEXEC) != 0) throw ErrorCode{errno};
        linuxos::Descriptor goRead(go[0]);
        go_ = linuxos::Descriptor(go[1]);
        if (pipe2(failure, O_CLOEXEC) != 0) throw ErrorCode{errno};
        failure_ = linuxos::Descriptor(failure[0]);
        linuxos::Descriptor failureWrite(failure[1]);
        std::vector<char*> arguments;
        arguments.reserve(command.size() + 1);
        for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        pid_ = fork();
        if (pid_ < 0) throw ErrorCode{errno};
        if (pid_ != 0) return;
        go_.reset();
        char byte = 0;
        if (read(goRead.get(), &byte, 1) != 1) _exit(0);
        execvp(arguments[0], arguments.data());
        const int error = errno;
        // Too small to be cut; without a reader there is nobody to tell.
        (void)!write(failureWrite.get(), &error, sizeof error);
        _exit(127);
    }

    pid_t pid() const { return pid_; }

    // Runs the command to its end, but leaves it for one more look. 0, or why it could not be run.
    int runToEnd() {
        (void)!write(go_.get(), "", 1);
        int error = 0;
        const ssize_t told = read(failure_.get(), &error, sizeof error);
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
        return told == sizeof error ? error : 0;
    }

    int status() {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    linuxos::Descriptor go_;
    linuxos::Descriptor failure_;
    pid_t pid_ = -1;
};

std::string programName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

ExitStatus runActivation(const std::vector<std::string>& command, OutputForm form, const ToolServices& services) {
    try {
        services.out.flush();
        WaitingCommand child(command);
        const RunPlatform platform(services);
        const std::uint64_t start = activationTimeNow();
        const auto activation = AppActivation::initWithStatisticsType(kSnapshotCPU | kSnapshotVM, child.pid(),
                                                                      programName(command[0]), start, start, 1, 1);
        const int error = child.runToEnd();
        if (activation && error == 0) {
            activation->activationEndedWithResult(0, activationTimeNow());
            activation->logAppActivationData(form == OutputForm::json ? kOutputJson : kOutputConsole);
        }
        const int status = child.status();
        if (error == 0 && activation) return static_cast<ExitStatus>(status);
        services.error << "quorvixctl: " << command[0] << ": " << ErrorCode{error ? error : ENOMEM}.text() << "\n";
    } catch (const ErrorCode& error) {
        services.error << "quorvixctl: " << command[0] << ": " << error.text() << "\n";
    }
    return ExitStatus::failed;
}

}  // namespace quorvix::ctl
