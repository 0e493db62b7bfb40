#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace quorvix::tests {

struct TrueFrame {
    std::uint64_t pc;
    std::uint64_t address;  // in the file
    std::string file;
};

// A program of target/, ended with this. Ready when the constructor returns, or it never was.
class TargetProcess {
public:
    TargetProcess(const std::string& program, std::vector<std::string> arguments) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ends[1], STDOUT_FILENO);
            setpgid(0, 0);
            const std::string path = program.front() == '/' ? program : QUORVIX_STACK_TARGETS "/" + program;
            std::vector<char*> words{const_cast<char*>(path.c_str())};
            for (std::string& argument : arguments) words.push_back(argument.data());
            words.push_back(nullptr);
            execv(path.c_str(), words.data());
            _exit(127);
        }
        close(ends[1]);
        output_ = fdopen(ends[0], "r");
        readUntilReady();
    }
    ~TargetProcess() {
        if (output_) fclose(output_);
        end();
    }
    TargetProcess(const TargetProcess&) = delete;
    TargetProcess& operator=(const TargetProcess&) = delete;

    pid_t pid() const { return pid_; }
    bool isReady() const { return isReady_; }
    // It can't do here what it is for.
    bool isImpossible() const { return isImpossible_; }
    // By thread; the innermost known frame first.
    const std::map<pid_t, std::vector<TrueFrame>>& truth() const { return truth_; }

    void end() {
        if (pid_ <= 0) return;
        kill(-pid_, SIGKILL);
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    void readUntilReady() {
        char* text = nullptr;
        std::size_t size = 0;
        while (!isReady_ && !isImpossible_ && getline(&text, &size, output_) > 0) {
            const std::string line(text);
            isReady_ = line == "ready\n";
            isImpossible_ = line == "impossible\n";
            if (line.starts_with("thread ")) addThread(line.substr(7));
        }
        free(text);
    }
    void addThread(const std::string& line) {
        std::istringstream words(line);
        pid_t tid = 0;
        words >> tid;
        std::vector<TrueFrame>& frames = truth_[tid];
        for (std::string word; words >> word;) {
            TrueFrame frame{};
            char* end = nullptr;
            frame.pc = std::strtoull(word.c_str(), &end, 16);
            frame.address = std::strtoull(end + 1, &end, 16);
            frame.file = end + 1;
            frames.push_back(frame);
        }
    }

    pid_t pid_ = -1;
    FILE* output_ = nullptr;
    bool isReady_ = false;
    bool isImpossible_ = false;
    std::map<pid_t, std::vector<TrueFrame>> truth_;
};

}  // namespace quorvix::tests
