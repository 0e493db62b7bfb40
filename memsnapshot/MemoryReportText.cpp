#include "memsnapshot/MemoryReportText.h"

#include "memsnapshot/AssertionNames.h"
#include "memsnapshot/WiredSiteNames.h"
#include "platform/Platform.h"

namespace quorvix {

namespace {

constexpr std::size_t kExpectedBytes = std::size_t{256} * 1024;

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

// Writes separators between records, none after the last.
class Records {
public:
    Records(std::string& text, std::string_view separator) : text_(text), separator_(separator) {}
    std::string& next() {
        if (!first_) text_ += separator_;
        first_ = false;
        return text_;
    }

private:
    std::string& text_;
    std::string_view separator_;
    bool first_ = true;
};

void appendCounters(std::string& text) {
    vm_statistics64 s{};
    Records records(text, ",\n");
    if (!platform().host.vmStatistics64(s, kVMStatistics64Count)) {
        records.next() += "\"error\" : \"vm_statistics64 failed\"";
        return;
    }
    const auto add = [&records](std::string_view key, std::uint64_t value) {
        records.next() += formatText("\"%@\" : %llu", key, value);
    };
    add("page_size", platform().host.pageSize());
    add("free_count", s.free_count);
    add("active_count", s.active_count);
    add("inactive_count", s.inactive_count);
    add("wire_count", s.wire_count);
    add("zero_fill_count", s.zero_fill_count);
    add("reactivations", s.reactivations);
    add("pageins", s.pageins);
    add("pageouts", s.pageouts);
    add("faults", s.faults);
    add("cow_faults", s.cow_faults);
    add("lookups", s.lookups);
    add("hits", s.hits);
    add("purges", s.purges);
    add("purgeable_count", s.purgeable_count);
    add("speculative_count", s.speculative_count);
    add("decompressions", s.decompressions);
    add("compressions", s.compressions);
    add("swapins", s.swapins);
    add("swapouts", s.swapouts);
    add("compressor_page_count", s.compressor_page_count);
    add("throttled_count", s.throttled_count);
    add("external_page_count", s.external_page_count);
    add("internal_page_count", s.internal_page_count);
    add("total_uncompressed_pages_in_compressor", s.total_uncompressed_pages_in_compressor);
}

bool isText(const std::string& bytes) {
    return static_cast<bool>(platform().json.makeText(std::vector<std::uint8_t>(bytes.begin(), bytes.end())));
}

// A gone process is "No_Name"; a living one whose path is empty or no text is told by its pid.
std::string processNameForReport(std::int32_t pid) {
    const auto path = platform().processMemory.executablePath(pid);
    if (!path) return "No_Name";
    if (path->empty() || !isText(*path)) return formatText("UnknownProcess_%d", pid);
    const std::string name = path->substr(path->rfind('/') + 1);
    return name.empty() ? "No_Name" : name;
}

const char* dirtyText(std::uint32_t state) {
    if (!(state & MemoryPriority::kTracked)) return "-";
    return state & MemoryPriority::kDirty ? "Y" : "N";
}

std::int32_t footprintPages(std::int32_t pid, std::uint64_t pageSize) {
    const auto footprint = platform().processMemory.physicalFootprint(pid);
    if (!footprint || pageSize == 0) return 0;
    return static_cast<std::int32_t>(*footprint / pageSize);
}

void appendAssertions(std::string& text, std::uint64_t mask) {
    if (mask == 0) return;
    text += ", \"Assertions\":[";
    for (std::uint32_t bit = 0; mask != 0; ++bit, mask >>= 1) {
        if (!(mask & 1)) continue;
        text += '"' + assertionName(bit) + '"';
        if (mask >> 1) text += ',';
    }
    text += ']';
}

void appendProcesses(std::string& text) {
    text += "\"Processes\" :\n[\n";
    const std::uint64_t pageSize = platform().host.pageSize();
    Records records(text, ",\n");
    // Without a list there are no processes to tell of; the section stands all the same.
    if (const auto list = platform().processMemory.priorityList()) {
        for (const MemoryPriority& entry : *list) {
            records.next() += formatText(R"({"ProcessName":"%@", "Priority":%d, "Footprint":%d, "Dirty":"%s")",
                                         processNameForReport(entry.pid), entry.priority,
                                         footprintPages(entry.pid, pageSize), dirtyText(entry.state));
            appendAssertions(text, platform().processMemory.assertions(entry.pid));
            text += '}';
        }
    }
    text += "],\n";
}

void appendZones(std::string& text, const std::vector<KernelZone>& zones) {
    text += "\"Zones\" :\n[\n";
    const std::uint64_t pageSize = platform().host.pageSize();
    Records records(text, ",\n");
    for (const KernelZone& zone : zones) {
        records.next() += formatText(R"({ "Name" : "%s", "Pages" : %llu })", zone.name,
                                     pageSize == 0 ? std::uint64_t{0} : zone.sizeBytes / pageSize);
    }
    text += "],\n";
}

void appendWiredSites(std::string& text, const std::vector<WiredSite>& sites) {
    text += "\"Wired\" :\n[\n";
    const WiredSiteNames names;
    Records records(text, ",\n");
    for (const WiredSite& site : sites) {
        if (site.sizeBytes == 0) continue;
        records.next() += formatText(R"({ "%s" : %llu })", names.nameOf(site), site.sizeBytes);
    }
    text += "]\n";
}

}  // namespace

std::string systemVersionText(const SystemVersion& version) {
    std::string product = version.productName.value_or("???");
    replaceAll(product, "Corvel OS", "CVOS");
    return formatText("%@ %@ (%@)", product, version.productVersion.value_or("???"),
                      version.buildVersion.value_or("???"));
}

std::string memoryReportText(std::string_view timestamp) {
    const std::string osVersion = systemVersionText(platform().systemInformation.version());
    std::string text;
    text.reserve(kExpectedBytes);
    text += R"({"bug_type":"152","os_version":")" + osVersion + "\"}\n";
    text += formatText("{\n\"Model\" : \"%s\",\n\"Timestamp\" : \"%@\",\n\"OSVersion\" : \"%@\"\n}\n",
                       platform().systemInformation.machine(), timestamp, osVersion);
    text += "{\n";
    appendCounters(text);
    text += ",\n";
    appendProcesses(text);
    const KernelMemoryInformation kernel = platform().kernelMemory.information();
    appendZones(text, kernel.zones);
    appendWiredSites(text, kernel.sites);
    text += "}\n";
    return text;
}

}  // namespace quorvix
