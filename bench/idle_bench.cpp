// The daemon at rest with 100 clients: its wake-ups, its memory before any client, and what a client adds.

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include "bench/Bench.h"
#include "bench/Daemon.h"
#include "client/quorvix.h"

using namespace quorvix::bench;

namespace {

constexpr int kClients = 100;
constexpr int kSeconds = 30;
constexpr int kTickSeconds = 5;
constexpr double kRegionKiB = 4;
constexpr useconds_t kMillisecond = 1000;

// The number after "field:" of a file of such lines.
double field(const std::string& path, const std::string& name) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1));
    }
    fail(path.c_str());
}

struct Memory {
    double pssKiB;
    double rssKiB;
    double pageTablesKiB;
};

Memory memoryOf(pid_t pid) {
    const std::string folder = "/proc/" + std::to_string(pid);
    return {field(folder + "/smaps_rollup", "Pss"), field(folder + "/smaps_rollup", "Rss"),
            field(folder + "/status", "VmPTE")};
}

// Times that any thread of the process went to sleep of itself, and so was woken up.
double wakeUpsOf(pid_t pid) {
    const std::string folder = "/proc/" + std::to_string(pid) + "/task";
    DIR* const tasks = opendir(folder.c_str());
    require(tasks != nullptr, "the daemon's threads");
    double sum = 0;
    while (const dirent* const task = readdir(tasks)) {
        if (task->d_name[0] != '.') sum += field(folder + "/" + task->d_name + "/status", "voluntary_ctxt_switches");
    }
    closedir(tasks);
    return sum;
}

// Apps that are watched and do nothing. They end with their object.
class Clients {
public:
    Clients() {
        require(pipe(registered_) == 0, "pipe");
        for (pid_t& client : clients_) {
            client = fork();
            require(client >= 0, "fork");
            if (client == 0) run();
        }
        char told;
        for (int i = 0; i < kClients; ++i) require(read(registered_[0], &told, 1) == 1, "a client registers");
    }
    ~Clients() {
        for (const pid_t client : clients_) kill(client, SIGKILL);
        for (const pid_t client : clients_) waitpid(client, nullptr, 0);
    }
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;

private:
    [[noreturn]] void run() {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        require(quorvix_start(nullptr) == 0, "a client starts");
        quorvix_watch_open("main", QUORVIX_WATCH_SAVE_REPORT);
        quorvix_statistics statistics{};
        for (int tries = 0; statistics.registrations == 0; ++tries) {
            if (tries == 10'000) _exit(1);
            usleep(kMillisecond);
            quorvix_read_statistics(&statistics, sizeof statistics);
        }
        require(write(registered_[1], "r", 1) == 1, "a client tells");
        for (;;) pause();
    }

    int registered_[2];
    pid_t clients_[kClients];
};

}  // namespace

int main(int, char** arguments) {
    enterPrivateRoot(arguments);
    const std::string path = programFolder() + "/quorvixd";
    const char* const daemonArguments[] = {path.c_str(), nullptr};
    const ReadyProgram daemon(daemonArguments);

    // Past its first tick, so that everything that happens by itself has happened once.
    sleep(kTickSeconds + 2);
    const Memory before = memoryOf(daemon.pid());
    printAbsolute("memory before any client, Pss", "MiB", before.pssKiB / 1024, 4);
    printAbsolute("memory before any client, RSS", "MiB", before.rssKiB / 1024, 6);

    const Clients clients;
    sleep(kTickSeconds + 2);
    const double wakeUpsBefore = wakeUpsOf(daemon.pid());
    sleep(kSeconds);
    const double wakeUps = wakeUpsOf(daemon.pid()) - wakeUpsBefore;
    const double ticks = kSeconds / kTickSeconds;
    require(wakeUps > 0, "the daemon looks at its clients");
    // A tick may come a second late by its leeway, so that one more or less falls into the time.
    std::printf(
        "wake-ups in %d s with %d clients: measured %.0f, floor %.0f (one a tick), ratio %.2f (goal <= %.0f): %s\n",
        kSeconds, kClients, wakeUps, ticks, wakeUps / ticks, ticks + 1, verdict(Goal::atMost, wakeUps, ticks + 1));

    const Memory after = memoryOf(daemon.pid());
    const auto aClient = [](double beforeKiB, double afterKiB) { return (afterKiB - beforeKiB) / kClients; };
    printAbsolute("memory a client, RSS beyond its region", "KiB", aClient(before.rssKiB, after.rssKiB) - kRegionKiB,
                  8);
    printAbsolute("memory a client, RSS beyond its region and page tables", "KiB",
                  aClient(before.rssKiB + before.pageTablesKiB, after.rssKiB + after.pageTablesKiB) - kRegionKiB, 8);
}
