// From exec to READY=1: the daemon with hang tracing on, against a program that does nothing but tell that it is ready.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "bench/Bench.h"
#include "bench/Daemon.h"

using namespace quorvix::bench;

namespace {

constexpr int kRounds = 20;
constexpr double kGoalMs = 10;

void tellReadyAndWait() {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, std::getenv("NOTIFY_SOCKET"), sizeof address.sun_path - 1);
    sendto(socket, "READY=1", 7, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    for (;;) pause();
}

}  // namespace

int main(int count, char** arguments) {
    if (count > 1 && std::strcmp(arguments[1], "--ready") == 0) tellReadyAndWait();
    enterPrivateRoot(arguments);
    pinToOneCpu();
    const std::string daemon = programFolder() + "/quorvixd";
    const std::string self = programFolder() + "/start_bench";
    const char* const daemonArguments[] = {daemon.c_str(), nullptr};
    const char* const floorArguments[] = {self.c_str(), "--ready", nullptr};

    Comparison start("start to ready", "ms");
    std::vector<double> times;
    for (int round = 0; round < kRounds; ++round) {
        const double floor = ReadyProgram(floorArguments).startMs();
        times.push_back(ReadyProgram(daemonArguments).startMs());
        start.add(times.back(), floor);
    }
    start.print(Goal::none, 0);
    printAbsolute("start to ready, median of 20", "ms", median(times), kGoalMs);
}
