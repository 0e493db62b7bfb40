// An app whose main thread hangs in the way it is told to:
//
//     quorvix_hanging_app KIND [--seconds S] [--after S] [--share F] [--name NAME]
//
// For the share F of each tenth of a second it imposes the kind, for the rest of it the main thread does something else
// that the report has to tell apart. It says on standard output when the hang begins and when it is over.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "client/quorvix.h"
#include "demo/hanging/Hang.h"

using namespace std::chrono_literals;
using quorvix::demo::Hang;

int main(int count, char** arguments) {
    std::string kind;
    std::string name = "hanging-app";
    double seconds = 8;
    double after = 1;
    double share = 1;
    CLI::App options("An app whose main thread hangs");
    options.add_option("kind", kind, "busy, starved, blocked, io or stopped")->required();
    options.add_option("--seconds", seconds, "how long it hangs")->check(CLI::PositiveNumber);
    options.add_option("--after", after, "how long it waits before")->check(CLI::NonNegativeNumber);
    options.add_option("--share", share, "the part of the time that the kind is imposed")->check(CLI::Range(0.05, 1.0));
    options.add_option("--name", name, "what the daemon is told that this app is called");
    CLI11_PARSE(options, count, arguments);

    const std::unique_ptr<Hang> hang = quorvix::demo::makeHang(kind, share);
    if (!hang) {
        std::fprintf(stderr, "no such kind of hang: %s\n", kind.c_str());
        return 2;
    }
    // Before the library has a thread: what a kind needs may be a process of its own.
    if (const std::string problem = hang->prepare(); !problem.empty()) {
        std::fprintf(stderr, "%s can't be imposed here: %s\n", kind.c_str(), problem.c_str());
        return 77;
    }
    quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.name = name.c_str();
    if (const int error = quorvix_start(&config)) std::fprintf(stderr, "not watched: %s\n", std::strerror(error));
    quorvix_watch* watch = quorvix_watch_open("main", QUORVIX_WATCH_SAVE_REPORT);

    std::this_thread::sleep_for(std::chrono::duration<double>(after));
    std::printf("hang begins\n");
    std::fflush(stdout);
    quorvix_begin(watch);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - std::chrono::steady_clock::now());
        hang->impose(left);
    }
    quorvix_end(watch);
    std::printf("hang is over\n");
    std::fflush(stdout);
    quorvix_stop();
    return 0;
}
