// The looks at what quorvixd needs of the system around it: service manager, journal, kernel, trace library.

#include <dlfcn.h>
#include <linux/bpf.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

#include "ctl/Diagnosis.h"
#include "ctl/PreferenceOrigin.h"
#include "ctl/Printable.h"
#include "ctl/Program.h"
#include "ctl/StateSocket.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/PropertyListReader.h"
#include "platform/linux/TextFile.h"

namespace quorvix::ctl {

namespace {

using Kind = Finding::Kind;

constexpr std::size_t kLongestWord = 64;
constexpr long kTracefsMagic = 0x74726163;

bool exists(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::exists(path, ignored);
}

std::string firstWordOf(const std::string& path) {
    const auto text = linuxos::readTextFile(path, kLongestWord);
    return text ? text->substr(0, text->find_first_of(" \n")) : std::string();
}

// What the daemon goes by for this key.
PreferenceOrigin originOfKey(const ToolServices& services, std::string_view key) {
    const KnownPreference* known = findKnownPreference(key);
    const auto stored = services.readDomain({.name = known->domain, .user = "mobile"});
    PropertyListDictionary profile;
    if (auto list = linuxos::readPropertyListFile(services.profilePath)) profile = std::move(list->dictionary);
    return originOf(*known, stored ? *stored : PropertyListDictionary{}, profile);
}

// Whether a preference of this name holds true for the daemon.
bool isSwitchedOn(const ToolServices& services, std::string_view key) {
    return originOfKey(services, key).value == "true";
}

bool isLockedOff(const ToolServices& services, std::string_view key) {
    const PreferenceOrigin origin = originOfKey(services, key);
    return origin.locked && origin.value != "true";
}

bool anythingIsOn(const ToolServices& services) {
    return isSwitchedOn(services, "QuorvixEnabled") || isSwitchedOn(services, "QuorvixEnableMemoryLogging") ||
           isSwitchedOn(services, "QuorvixEnableAppActivationLogging");
}

// One line of systemctl's answer; empty where it has none.
std::string systemctl(const char* question) {
    std::string answer;
    (void)runProgram({"systemctl", question, "quorvixd.service"}, [&](std::string_view line) {
        if (answer.empty()) answer = line;
    });
    return answer;
}

Finding examineMessageSocket(const ToolServices& services) {
    struct stat status {};
    if (stat(services.messagePath.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return {Kind::problem, "sockets", "there is no " + services.messagePath + ", where apps connect",
                "systemctl restart quorvixd"};
    }
    if ((status.st_mode & 0222) != 0222) {
        return {Kind::problem, "sockets", services.messagePath + " is closed to apps of other users",
                "chmod 0666 " + services.messagePath + ", or systemctl restart quorvixd"};
    }
    return {Kind::good, "sockets", "apps can connect at " + services.messagePath, ""};
}

}  // namespace

Findings examineService(const ToolServices& services) {
    Findings found;
    const bool systemd = exists(services.root + "/run/systemd/system");
    if (systemd) {
        const std::string enabled = systemctl("is-enabled");
        if (enabled != "enabled" && enabled != "static") {
            found.push_back({Kind::notice, "service",
                             "the unit quorvixd.service is " + (enabled.empty() ? "unknown" : printable(enabled)) +
                                 ": it does not start with the system",
                             "systemctl enable --now quorvixd.service quorvixd.path"});
        }
        if (systemctl("is-failed") == "failed") {
            found.push_back({Kind::problem, "service", "the unit quorvixd.service has failed",
                             "journalctl -u quorvixd says why; then systemctl restart quorvixd"});
        }
    }
    const Result<std::string> document = readState(services.statePath);
    if (!document) {
        const bool wanted = anythingIsOn(services);
        const int error = document.error().value;
        if (error != ENOENT && error != ECONNREFUSED) {
            found.push_back({Kind::problem, "service",
                             "quorvixd's state can't be read at " + services.statePath + ": " + document.error().text(),
                             "run this as root; if quorvixd is stuck: systemctl restart quorvixd"});
        } else if (wanted) {
            found.push_back({Kind::problem, "service", "quorvixd does not run, although the preferences want it",
                             systemd ? "systemctl start quorvixd; journalctl -t quorvixd says what went wrong"
                                     : "start quorvixd; what it says on standard error tells what went wrong"});
        } else {
            found.push_back({Kind::good, "service", "quorvixd does not run: nothing is switched on", ""});
        }
        return found;
    }
    const auto state = nlohmann::ordered_json::parse(*document, nullptr, false);
    const std::string version = state.is_object() && state.contains("version") && state["version"].is_string()
                                    ? state["version"].get<std::string>()
                                    : std::string();
    if (version != QUORVIX_VERSION) {
        found.push_back({Kind::notice, "service",
                         "quorvixd runs in version " + printable(version) + " and this tool is of " + QUORVIX_VERSION,
                         "systemctl restart quorvixd"});
    } else {
        found.push_back({Kind::good, "service", "quorvixd runs, version " + version, ""});
    }
    found.push_back(examineMessageSocket(services));
    return found;
}

Findings examineJournal(const ToolServices& services) {
    if (!exists(services.root + "/run/systemd/journal/socket")) {
        return {{Kind::notice, "journal", "there is no journal: quorvixd's lines go to its standard error",
                 "keep its standard error in a file, and read it with \"quorvixctl log APP --file FILE\""}};
    }
    if (!exists(services.root + "/var/log/journal")) {
        return {{Kind::notice, "journal", "the journal does not outlast a restart of the device",
                 "mkdir -p /var/log/journal && systemctl restart systemd-journald"}};
    }
    return {{Kind::good, "journal", "the journal takes quorvixd's lines and keeps them", ""}};
}

Findings examineTracing(const ToolServices& services) {
    // First: whatever the recorder's state is, it is of no use here.
    if (!services.seesTheKernelsIds) {
        return {{Kind::notice, "tracing",
                 "the flight recorder can't tell this container's processes, which have other ids outside: reports "
                 "hold no history",
                 "nothing in here helps; where history is needed, run quorvixd outside of the container"}};
    }
    const std::string tracing = services.root + "/sys/kernel/tracing";
    struct statfs status {};
    const bool mounted = services.root.empty() ? statfs(tracing.c_str(), &status) == 0 && status.f_type == kTracefsMagic
                                               : exists(tracing + "/instances");
    if (!mounted) {
        return {{Kind::problem, "tracing", "tracefs is not mounted at /sys/kernel/tracing: reports hold no history",
                 "mount -t tracefs nodev /sys/kernel/tracing"}};
    }
    const std::string recorder = tracing + "/instances/swivex";
    if (!exists(recorder)) {
        return {{Kind::notice, "tracing", "the flight recorder is not armed: reports hold no history",
                 "quorvixctl recorder on"}};
    }
    if (firstWordOf(recorder + "/tracing_on") != "1") {
        return {{Kind::notice, "tracing", "the flight recorder is there and stopped", "quorvixctl recorder on"}};
    }
    return {{Kind::good, "tracing", "the flight recorder runs", ""}};
}

Findings examineKernelPrograms(const ToolServices& services) {
    constexpr const char* kSlower = "process snapshots and stacks are taken through procfs and ptrace, which is slower";
    if (!exists(services.root + "/sys/kernel/btf/vmlinux")) {
        return {{Kind::notice, "BPF", std::string("the kernel has no type information: ") + kSlower,
                 "a kernel built with CONFIG_DEBUG_INFO_BTF"}};
    }
    bpf_attr attributes{};
    attributes.map_type = BPF_MAP_TYPE_ARRAY;
    attributes.key_size = 4;
    attributes.value_size = 4;
    attributes.max_entries = 1;
    // The least that the kernel may refuse: says whether it takes BPF from this user at all.
    const linuxos::Descriptor map(static_cast<int>(syscall(SYS_bpf, BPF_MAP_CREATE, &attributes, sizeof attributes)));
    if (!map) {
        return {{Kind::notice, "BPF", "the kernel refuses BPF (" + ErrorCode{errno}.text() + "): " + kSlower,
                 "as root, with CONFIG_BPF_SYSCALL and without a lockdown"}};
    }
    return {{Kind::good, "BPF", "the kernel takes BPF and has its type information", ""}};
}

Findings examineInhibitors(const ToolServices& services) {
    const std::string folder = services.root + "/run/systemd/inhibit";
    if (!exists(folder)) {
        return {{Kind::notice, "inhibitors", "no login manager keeps inhibitors in /run/systemd/inhibit",
                 "assertions come from /run/vex/assertions alone (/usr/share/doc/quorvixd/memory-report.md)"}};
    }
    if (access(folder.c_str(), R_OK | X_OK) != 0) {
        return {{Kind::problem, "inhibitors", "/run/systemd/inhibit can't be read: " + ErrorCode{errno}.text(),
                 "run this as root"}};
    }
    return {{Kind::good, "inhibitors", "the login manager's inhibitors can be read", ""}};
}

Findings examineTraceLibrary(const ToolServices& services) {
    const std::string path = services.root + "/usr/lib/libswivex.dylib";
    const bool wanted = isSwitchedOn(services, "QuorvixEnableSwivex");
    const Kind kind = wanted ? Kind::problem : Kind::notice;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return {{kind, "trace library",
                 "/usr/lib/libswivex.dylib is missing: hangs are logged, but no report is written",
                 "install the package quorvixd again"}};
    }
    if (status.st_uid != 0 || (status.st_mode & 0022) != 0) {
        return {
            {Kind::problem, "trace library",
             "/usr/lib/libswivex.dylib can be changed by others than root, and runs as root",
             "chown root:root /usr/lib/libswivex.dylib && chmod 0644 /usr/lib/libswivex.dylib; then install it again"}};
    }
    // Kept open: what a library leaves behind must outlive it.
    void* const library = dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (!library || !dlsym(library, "swivex_dump_output_with_options_sync")) {
        const char* const why = library ? "it has no dump function" : dlerror();
        return {{kind, "trace library", "/usr/lib/libswivex.dylib can't be used: " + printable(why ? why : "no reason"),
                 "install the package quorvixd again"}};
    }
    if (!wanted) {
        const bool locked = isLockedOff(services, "QuorvixEnableSwivex") || isLockedOff(services, "QuorvixEnabled");
        return {{Kind::notice, "trace library",
                 "it is there, but reports are switched off: hangs are logged and counted",
                 locked ? "none here: the managed profile decides that" : "quorvixctl enable hang"}};
    }
    return {{Kind::good, "trace library", "it is there, and reports are switched on", ""}};
}

}  // namespace quorvix::ctl
