#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Preferences.h"
#include "platform/Result.h"

namespace quorvix::ctl {

// What the commands work on: main gives the real things, the tests simulated ones. All of it outlives the commands.
struct ToolServices {
    // Takes what is set. Read and written by the two below, which say why they fail.
    PreferencesStore& preferences;
    // Every key of a domain; none when it has no list. EINVAL: the list is damaged.
    std::function<Result<PropertyListDictionary>(const PreferenceDomain&)> readDomain;
    std::function<Result<void>(const PreferenceDomain&)> writeDomain;
    std::function<Result<void>(std::string_view notification)> post;
    // The daemon's state socket.
    std::string statePath;
    // Where memory snapshot reports are.
    std::string reportFolder;
    // Takes a memory snapshot in this process: the report's path, or nothing, and standard error says why.
    std::function<std::optional<std::string>()> takeSnapshot;
    std::ostream& out;
    std::ostream& error;
    // The daemon's power log, and the socket on which it takes messages.
    std::string powerLogPath = "/var/lib/quorvix/wattrel.db";
    std::string messagePath = "/run/vex/com.norvane.quorvixd";
    // Where the kernel's tracing file system is mounted.
    std::string traceRoot = "/sys/kernel/tracing";
    // Where hang reports are.
    std::string spoolFolder = "/var/root/Library/Caches/quorvixd/spool";
    // Has the service manager start the daemon. ENOSYS: there is none that is known.
    std::function<Result<void>()> startDaemon = [] { return Result<void>(); };
    // The counter store, and the managed profile that overrides preferences.
    std::string counterPath = "/var/lib/quorvix/tallisk.db";
    std::string profilePath = "/Library/Managed Preferences/mobile/.GlobalPreferences.plist";
    // The journal's own reader, what the daemon's lines are kept in where there is no journal, and which lines it
    // keeps.
    std::string journalProgram = "journalctl";
    std::string logFile = "/var/log/quorvixd.log";
    std::string logLevelFolder = "/etc/vex";
    // Where the whole file system is, for the commands that look at an installation.
    std::string root = {};
    // Whether all of the journal may be read.
    bool isRoot = true;
    // Whether ids of processes are here the kernel's own: not so in a container.
    bool seesTheKernelsIds = true;
    // Whether the output may be coloured, and whether somebody sits at standard error who wants to know what lasts.
    bool colours = false;
    bool progress = false;
};

}  // namespace quorvix::ctl
