#include <algorithm>

#include "simulate/Model.h"
#include "simulate/Text.h"

namespace quorvix::simulate {

namespace {

// Escaped: two question marks begin a trigraph.
constexpr const char* kNothing = "\?\?\?";
constexpr const char* kCache = "/var/root/Library/Caches/quorvixd/";
constexpr const char* kReportFolder = "/Library/Logs/Faultbox/";

}  // namespace

// Created, written with the right text, closed and moved into its place; what does not come there is removed.
void Model::memorySnapshot() {
    const std::string name = "memory-snapshot-" + stamp() + ".ips";
    const Record created = replay_.expectAny(Op::createNewFile);
    const bool named = created.what.find("|" + name + " 420 4") != std::string::npos;
    if (!named) throw Mismatch{"expected a memory snapshot " + name + ", got " + created.what};
    if (created.error.value != 0) {
        return log(print("Could not create file - won't take a memory snapshot: %s/%s %s", kCache, name.c_str(),
                         created.error.text().c_str()));
    }
    const std::string date = name.substr(16, name.size() - 20);
    const Record written = replay_.expectAny(Op::writeFile);
    const std::string wanted = memoryReport(date);
    const std::string_view text = std::string_view(written.what).substr(written.what.find('|') + 1);
    if (text != wanted) {
        const auto differs = std::ranges::mismatch(wanted, text);
        const auto line = [](std::string_view all, std::ptrdiff_t at) {
            const std::size_t start = at == 0 ? 0 : all.rfind('\n', static_cast<std::size_t>(at) - 1) + 1;
            return std::string(all.substr(start, all.find('\n', static_cast<std::size_t>(at)) - start));
        };
        throw Mismatch{"expected in the memory report\n  " + line(wanted, differs.in1 - wanted.begin()) +
                       "\n  got\n  " + line(text, differs.in2 - text.begin())};
    }
    const Record closed = replay_.expect(Op::closeChecked, name);
    const std::string cached = std::string(kCache) + "|" + name;
    const bool whole = written.error.value == 0 && closed.error.value == 0;
    if (whole && replay_.expect(Op::replaceFile, cached + " -> " + kReportFolder + "|" + name).error.value == 0) return;
    replay_.expect(Op::unlinkFile, cached);
}

std::string Model::memoryReport(const std::string& date) {
    const sim::SimPlatform& real = device_.platform;
    const std::string version =
        replay_.leftOut(Op::systemVersion) ? print("%s %s (%s)", kNothing, kNothing, kNothing) : "CVOS 9.3 (13E230)";
    std::string text = "{\"bug_type\":\"152\",\"os_version\":\"" + version + "\"}\n";
    text += print("{\n\"Model\" : \"%s\",\n\"Timestamp\" : \"%s\",\n\"OSVersion\" : \"%s\"\n}\n", "Corvel7,1",
                  date.c_str(), version.c_str());
    text += "{\n";
    if (replay_.question(Op::hostStatistics, "38").error.value != 0) {
        text += "\"error\" : \"vm_statistics64 failed\"";
    } else {
        const vm_statistics64& host = real.host.statistics;
        const auto add = [&](const char* key, std::uint64_t value, bool last = false) {
            text += print("\"%s\" : %lu%s", key, static_cast<unsigned long>(value), last ? "" : ",\n");
        };
        add("page_size", real.host.pageBytes);
        add("free_count", host.free_count);
        add("active_count", host.active_count);
        add("inactive_count", host.inactive_count);
        add("wire_count", host.wire_count);
        add("zero_fill_count", host.zero_fill_count);
        add("reactivations", host.reactivations);
        add("pageins", host.pageins);
        add("pageouts", host.pageouts);
        add("faults", host.faults);
        add("cow_faults", host.cow_faults);
        add("lookups", host.lookups);
        add("hits", host.hits);
        add("purges", host.purges);
        add("purgeable_count", host.purgeable_count);
        add("speculative_count", host.speculative_count);
        add("decompressions", host.decompressions);
        add("compressions", host.compressions);
        add("swapins", host.swapins);
        add("swapouts", host.swapouts);
        add("compressor_page_count", host.compressor_page_count);
        add("throttled_count", host.throttled_count);
        add("external_page_count", host.external_page_count);
        add("internal_page_count", host.internal_page_count);
        add("total_uncompressed_pages_in_compressor", host.total_uncompressed_pages_in_compressor, true);
    }
    text += ",\n";
    text += "\"Processes\" :\n[\n";
    bool first = true;
    const bool listed = replay_.question(Op::priorityList, "").error.value == 0;
    for (const auto& process : real.processMemory.processes) {
        if (!listed) break;
        const std::string pid = std::to_string(process.pid);
        std::string name = "No_Name";
        if (replay_.question(Op::memoryPath, pid).error.value == 0 && process.path) {
            name = process.path->substr(process.path->rfind('/') + 1);
            if (name.empty()) name = "No_Name";
            // The path is no text.
            if (replay_.questionIfAsked(Op::makeText, "").error.value != 0) name = "UnknownProcess_" + pid;
        }
        std::uint64_t pages = 0;
        if (replay_.question(Op::footprint, pid).error.value == 0) {
            pages = process.footprintBytes.value_or(0) / real.host.pageBytes;
        }
        const char* const dirty = !(process.state & 0x8) ? "-" : process.state & 0x20 ? "Y" : "N";
        text += print("%s{\"ProcessName\":\"%s\", \"Priority\":%d, \"Footprint\":%d, \"Dirty\":\"%s\"",
                      first ? "" : ",\n", name.c_str(), process.priority, static_cast<int>(pages), dirty);
        const std::uint64_t assertions =
            replay_.questionIfAsked(Op::assertions, pid).error.value == 0 ? process.assertions : 0;
        if (assertions != 0) {
            text += ", \"Assertions\":[";
            static constexpr const char* kNames[] = {"Audio",
                                                     "Location",
                                                     "Accessory",
                                                     "Bg_Finish_Task",
                                                     "Bluetooth",
                                                     "Network_Auth",
                                                     "Bg_UI",
                                                     "InterApp_Audio",
                                                     "Bg_Resume",
                                                     "Bg_Suspend",
                                                     "Bg_Transient_Wakeup",
                                                     "Bg_Periodic_Task",
                                                     "Bg_Finish_Task_Unbounded",
                                                     "Bg_Continuous",
                                                     "Bg_Download",
                                                     "Newsstand_Download",
                                                     "Foreground",
                                                     "ViewService",
                                                     "Bg_Content_Fetch",
                                                     "Notification_Handling",
                                                     "Bg_Finish_Task_Aft_Bg_Content_Fetch",
                                                     "Bg_Finish_Task_Aft_Bg_Download",
                                                     "Bg_Finish_Task_Aft_Periodic_Task",
                                                     "Finish_Task_Aft_Notification",
                                                     "VoIP",
                                                     "Extension",
                                                     "Continuity"};
            for (int bit = 0; bit < 64; ++bit) {
                if (!(assertions >> bit & 1)) continue;
                text += bit < 27 ? print("\"%s\"", kNames[bit]) : print("\"UnknownAssertion_%d\"", bit);
                if (bit < 63 && assertions >> (bit + 1)) text += ",";
            }
            text += "]";
        }
        text += "}";
        first = false;
    }
    text += "],\n\"Zones\" :\n[\n";
    first = true;
    const auto known = replay_.leftOut(Op::kernelMemory) ? KernelMemoryInformation{} : real.kernelMemory.memory;
    const bool extensionsListed = !replay_.leftOut(Op::extensions);
    const bool hasSymbols = !replay_.leftOut(Op::symbolResolver);
    for (const KernelZone& zone : known.zones) {
        text += print("%s{ \"Name\" : \"%s\", \"Pages\" : %llu }", first ? "" : ",\n", zone.name.c_str(),
                      static_cast<unsigned long long>(zone.sizeBytes / real.host.pageBytes));
        first = false;
    }
    text += "],\n\"Wired\" :\n[\n";
    first = true;
    for (const WiredSite& site : known.sites) {
        if (site.sizeBytes == 0) continue;
        std::string name;
        if (site.kind == WiredSite::Kind::counter) {
            name = print("VM_KERN_COUNT_%lld", static_cast<long long>(site.number));
        } else if (site.kind == WiredSite::Kind::kernelExtension) {
            name = "(unknown kmod)";
            for (const KernelExtension& extension : real.kernelMemory.extensions) {
                if (extensionsListed && extension.loadTag == site.number) name = extension.bundleIdentifier;
            }
        } else if (site.kind == WiredSite::Kind::kernelAddress) {
            const auto symbol = real.kernelMemory.symbols.find(site.number);
            name = hasSymbols && symbol != real.kernelMemory.symbols.end()
                       ? symbol->second
                       : print("site 0x%llx", static_cast<unsigned long long>(site.number));
        } else {
            name = print("VM_KERN_MEMORY_%lld", static_cast<long long>(site.number));
        }
        text += print("%s{ \"%s\" : %llu }", first ? "" : ",\n", name.c_str(),
                      static_cast<unsigned long long>(site.sizeBytes));
        first = false;
    }
    text += "]\n}\n";
    return text;
}

}  // namespace quorvix::simulate
