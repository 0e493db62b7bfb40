#include "ctl/Program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/Descriptor.h"

extern char** environ;

namespace quorvix::ctl {

namespace {

// What the program gets as its three first descriptors.
class Redirections {
public:
    explicit Redirections(int output) {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    ~Redirections() { posix_spawn_file_actions_destroy(&actions_); }
    Redirections(const Redirections&) = delete;
    Redirections& operator=(const Redirections&) = delete;
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

class Lines {
public:
    explicit Lines(const std::function<void(std::string_view)>& onLine) : onLine_(onLine) {}

    void add(std::string_view bytes) {
        for (const char byte : bytes) {
            if (byte == '\n') {
                end();
            } else if (line_.size() < kLongestProgramLine) {
                line_ += byte;
            }
        }
    }
    void endOfFile() {
        if (!line_.empty()) end();
    }

private:
    void end() {
        onLine_(line_);
        line_.clear();
    }

    const std::function<void(std::string_view)>& onLine_;
    std::string line_;
};

}  // namespace

Result<ProgramEnd> runProgram(const std::vector<std::string>& command,
                              const std::function<void(std::string_view)>& onLine) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return ErrorCode{errno};
    const linuxos::Descriptor reading(ends[0]);
    linuxos::Descriptor writing(ends[1]);
    std::vector<char*> arguments;
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const Redirections redirections(writing.get());
    pid_t pid = -1;
    if (const int error = posix_spawnp(&pid, arguments[0], redirections.get(), nullptr, arguments.data(), environ)) {
        return ErrorCode{error};
    }
    writing.reset();
    Lines lines(onLine);
    char buffer[64 * 1024];
    while (true) {
        const ssize_t count = read(reading.get(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        lines.add({buffer, static_cast<std::size_t>(count)});
    }
    lines.endOfFile();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return ErrorCode{errno};
    }
    return ProgramEnd{WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status)};
}

}  // namespace quorvix::ctl
