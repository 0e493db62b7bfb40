#include "bench/Daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "bench/Bench.h"

namespace quorvix::bench {

namespace {

constexpr const char* kInside = "QUORVIX_BENCH_INSIDE";
constexpr const char* kReadySocket = "/run/ready";

std::string ownPath() {
    char path[4096];
    const ssize_t size = readlink("/proc/self/exe", path, sizeof path);
    require(size > 0, "the program's own path");
    return {path, static_cast<std::size_t>(size)};
}

int readySocket() {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kReadySocket);
    unlink(kReadySocket);
    require(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "the ready socket");
    return socket;
}

// The moment just before exec, told by the child through memory that both have.
double* sharedMoment() {
    void* const memory = mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "mmap");
    return static_cast<double*>(memory);
}

}  // namespace

std::string programFolder() {
    const std::string path = ownPath();
    return path.substr(0, path.rfind('/'));
}

void enterPrivateRoot(char** arguments) {
    if (std::getenv(kInside) == nullptr) {
        setenv(kInside, "1", 1);
        const std::string self = ownPath();
        require(chdir(QUORVIX_SOURCE_FOLDER) == 0, "the source folder");
        execl("demo/private-root", "demo/private-root", self.c_str(), arguments[1], nullptr);
        fail("demo/private-root does not run");
    }
    require(std::system("mkdir -p /var/root/Library/Caches /run/vex /var/lib/quorvix "
                        "/var/lib/prometheus/node-exporter") == 0,
            "folders");
    const std::string enable = programFolder() + "/quorvixctl prefs set QuorvixEnabled true >/dev/null";
    require(std::system(enable.c_str()) == 0, "hang tracing is switched on");
}

ReadyProgram::ReadyProgram(const char* const* arguments) {
    static double* const execMoment = sharedMoment();
    const int socket = readySocket();
    setenv("NOTIFY_SOCKET", kReadySocket, 1);
    pid_ = fork();
    require(pid_ >= 0, "fork");
    if (pid_ == 0) {
        const int nowhere = open("/dev/null", O_RDWR);
        for (const int stream : {0, 1, 2}) dup2(nowhere, stream);
        *execMoment = nowNs();
        execv(arguments[0], const_cast<char* const*>(arguments));
        _exit(127);
    }
    char text[64] = {};
    pollfd ready{socket, POLLIN, 0};
    require(poll(&ready, 1, 10'000) == 1 && recv(socket, text, sizeof text - 1, 0) > 0, "the program gets ready");
    startMs_ = (nowNs() - *execMoment) / 1e6;
    require(std::strcmp(text, "READY=1") == 0, "READY=1");
    close(socket);
}

ReadyProgram::~ReadyProgram() {
    kill(pid_, SIGTERM);
    int status = 0;
    require(waitpid(pid_, &status, 0) == pid_, "waitpid");
    // Anything but the end that was asked for is a crash.
    require(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM, "the program ends when it is asked to");
}

}  // namespace quorvix::bench
