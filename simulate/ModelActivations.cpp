#include <algorithm>
#include <charconv>
#include <span>
#include <utility>

#include "simulate/Model.h"
#include "simulate/Text.h"

namespace quorvix::simulate {

namespace {

using namespace std::chrono_literals;
using Task = ModelSnapshot::Task;
using Number = unsigned long long;

constexpr std::int64_t kReferenceEpoch = 978307200;  // 2001-01-01 00:00:00 UTC
constexpr double kNsPerTick = 125.0 / 3.0;

std::uint64_t hashOf(std::string_view text) {
    std::uint64_t hash = 0xCBF29CE484222325u;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3u;
    return hash;
}

std::string shortest(double value) {
    char text[40];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

std::string dateText(WallTime time) {
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(std::chrono::floor<std::chrono::seconds>(time - day));
    return print("%04d-%02u-%02u %02d:%02d:%02d +0000", int(date.year()), unsigned(date.month()), unsigned(date.day()),
                 int(clock.hours().count()), int(clock.minutes().count()), int(clock.seconds().count()));
}

std::string keyOf(std::int32_t pid, const std::string& bundle) { return print("%d:%s", pid, bundle.c_str()); }

std::string ascii(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) c = '?';
    }
    return text;
}

std::uint64_t uniqueID(std::int32_t pid, const std::string& name) {
    return static_cast<std::uint64_t>(std::int64_t{pid}) | (hashOf(name) << 32);
}

Number milliseconds(std::uint64_t ticks) {
    return static_cast<Number>(static_cast<double>(ticks) * kNsPerTick / 1000000.0);
}

// What a process's dictionary sums up.
struct Figures {
    Number total = 0, disabled = 0, interactive = 0, initiated = 0, standard = 0, utility = 0, maintenance = 0,
           background = 0, reads = 0, writes = 0, pageIns = 0;
    void add(const ResourceUsage& usage) {
        total += milliseconds(usage.userTime);
        disabled += milliseconds(usage.unspecifiedTime);
        interactive += milliseconds(usage.userInteractiveTime);
        initiated += milliseconds(usage.userInitiatedTime);
        standard += milliseconds(usage.legacyTime);
        utility += milliseconds(usage.utilityTime);
        maintenance += milliseconds(usage.maintenanceTime);
        background += milliseconds(usage.backgroundTime);
        reads += usage.diskBytesRead >> 10;
        writes += usage.diskBytesWritten >> 10;
        pageIns += usage.pageIns;
    }
    std::string dictionary(const std::string& timestamp, Number activation, Number unique, unsigned state) const {
        return print(
            "{\"Timestamp\":%s,\"ActivationID\":%llu,\"UniqueID\":%llu,\"TotalCPU_ms\":%llu,"
            "\"QOSDisabled_ms\":%llu,\"QOSUserInteractive_ms\":%llu,\"QOSUserInitiated_ms\":%llu,"
            "\"QOSDefault_ms\":%llu,\"QOSUtility_ms\":%llu,\"QOSMaintenance_ms\":%llu,"
            "\"QOSBackground_ms\":%llu,\"IOReads_kb\":%llu,\"IOWrites_kb\":%llu,\"PageIns\":%llu,"
            "\"ProcessLifecycleState\":%u}",
            timestamp.c_str(), activation, unique, total, disabled, interactive, initiated, standard, utility,
            maintenance, background, reads, writes, pageIns, state);
    }
};

std::string hostDictionary(const vm_statistics64& host, const std::string& timestamp, Number activation,
                           unsigned sequence) {
    std::string out = "{";
    const auto add = [&](const char* key, Number value) { out += print("\"%s\":%llu,", key, value); };
    add("FreeQueue", std::uint64_t{host.free_count} - host.speculative_count);
    add("ActiveQueue", host.active_count);
    add("SpeculativeQueue", host.speculative_count);
    add("InactiveQueue", host.inactive_count);
    add("ThrottledQueue", host.throttled_count);
    add("WiredQueue", host.wire_count);
    add("PurgeableQueue", host.purgeable_count);
    add("FileBackedQueue", host.external_page_count);
    add("AnonymousQueue", host.internal_page_count);
    add("CompressorSize", host.compressor_page_count);
    add("Faults", host.faults);
    add("CopyOnWriteFault", host.cow_faults);
    add("ZeroFill", host.zero_fill_count);
    add("Reactivated", host.reactivations);
    add("Purged", host.purges);
    add("TotalCompressed", host.total_uncompressed_pages_in_compressor);
    add("Decompressions", host.decompressions);
    add("Compressions", host.compressions);
    add("PageIns", host.pageins);
    add("PageOuts", host.pageouts);
    add("SwapIns", host.swapins);
    add("SwapOuts", host.swapouts);
    out += print("\"Timestamp\":%s,\"ActivationID\":%llu,\"SequenceID\":%u}", timestamp.c_str(), activation, sequence);
    return out;
}

// Whether `text` is "{", these entries in any order within runs of equal rank, and "}".
bool isDictionaryOf(std::string_view text, std::vector<std::pair<std::int64_t, std::string>> entries) {
    if (!text.starts_with('{')) return false;
    text.remove_prefix(1);
    while (!entries.empty()) {
        const std::int64_t rank = entries.front().first;
        auto found = entries.begin();
        while (found != entries.end() && (found->first != rank || !text.starts_with(found->second))) ++found;
        if (found == entries.end()) return false;
        text.remove_prefix(found->second.size());
        entries.erase(found);
        if (!entries.empty()) {
            if (!text.starts_with(',')) return false;
            text.remove_prefix(1);
        }
    }
    return text == "}";
}

}  // namespace

// --- the tracker ---------------------------------------------------------------------------------------------------

void Model::makeTracker() {
    if (std::exchange(trackerMade_, true)) return;
    armMidnight();
    registerFor("com.norvane.mobile.sentinad.first_unlock", "com.norvane.quorvix.perfstats.logoutput");
}

void Model::armMidnight() {
    const WallTime now = device_.scheduler.wallNow();
    const WallTime midnight = device_.wallClock.nextLocalMidnight(now);
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(midnight - now);
    // Whole seconds: a midnight less than one away counts as reached, or the timer would be due at once, for ever.
    const std::chrono::seconds delay = left > 0s ? left : 60s;
    info("QXActivationStats: Setting Timer to fire at " + dateText(midnight));
    queues_[QueueName::output]->asyncAt(now + delay, onQueue(QueueName::output, [this, midnight] {
                                            info("QXActivationStats: Timer Fired at " +
                                                 dateText(device_.scheduler.wallNow()) +
                                                 ". Scheduled date was:" + dateText(midnight));
                                            largestPid_ = -1;
                                            activationsRecorded_ = 0;
                                            armMidnight();
                                        }));
}

void Model::beginStep(const ActivationBegin& begin) {
    const std::string key = keyOf(begin.pid, begin.bundle);
    if (activations_.contains(key)) {
        return log("QXActivationStats: beginActivationTrackingForPID: An entry already exists for " + key + "\n");
    }
    const ActivationPointer activation = makeActivation(7, begin);
    activations_[key] = activation;
    if (begin.type == 1) {
        if (debugLines_) {
            replay_.expect(Op::launchLine, print("d:vexStartLatencyInMs %u ms", activation->startLatency));
        }
        if (activation->startLatency < 200) launchBegin(begin.pid, begin.bundle);
    }
    later(QueueName::activation, 60s, [this, begin] { beginTimeout(begin); });
}

void Model::beginTimeout(const ActivationBegin& begin) {
    const std::string key = keyOf(begin.pid, begin.bundle);
    const auto found = activations_.find(key);
    if (found == activations_.end()) return;
    if (found->second->type == 1) launchEnd(begin.pid, begin.bundle, false);
    activations_.erase(found);
    ActivationBegin copy = begin;
    copy.type = 0;
    const ActivationPointer dropped = makeActivation(0, copy);
    endActivation(*dropped, 33, begin.time);
    log("QXActivationStats: beginActivationTrackingForPID: Did not find an end call entry for " + key + "\n");
}

void Model::endStep(const ActivationEnd& end) {
    const std::string key = keyOf(end.pid, end.bundle);
    const auto found = activations_.find(key);
    ActivationPointer record;
    if (found != activations_.end()) {
        record = found->second;
        endActivation(*record, static_cast<std::uint8_t>(end.result), end.time);
        if (record->type == 1) {
            if (debugLines_) replay_.expect(Op::launchLine, print("d:vexEndLatencyInMs %u ms", record->endLatency));
            if (record->endLatency < 200) launchEnd(end.pid, end.bundle, true);
        }
        debug(
            print("QXActivationStats: Activation Complete:Activationid:%lld BundleID:%s PID:%d Result:%d Type:%d "
                  "TimeTaken:%d ms",
                  static_cast<long long>(record->id), end.bundle.c_str(), end.pid, end.result, record->type,
                  static_cast<std::int32_t>(record->wallTime)));
        activations_.erase(key);
    } else {
        record = makeActivation(
            0,
            {.pid = end.pid, .bundle = end.bundle, .time = end.time, .sent = end.time, .state = end.state, .type = 0});
        endActivation(*record, 32, end.time);
        log("QXActivationStats: endActivationTrackingForPID: Did not find an existing entry for " + key + "\n");
    }
    if (record->startState == 1 && end.state == 1 && maxActivations_ > activationsRecorded_) {
        ++outputsWaiting_;
        post(QueueName::output, [this, record, bundle = end.bundle] {
            --outputsWaiting_;
            ++activationsRecorded_;
            powerLog(*record);
            debug(print("QXActivationStats: Sending activation for %s to Wattrel. Number Of Activations recorded:%d",
                        bundle.c_str(), static_cast<std::int32_t>(activationsRecorded_)));
        });
        return;
    }
    log(print("QXActivationStats: Activation not recorded for:%s StartState:%s EndState:%s Number Of Activations:%d",
              end.bundle.c_str(), record->startState != 0 ? "Foreground" : "Background",
              end.state != 0 ? "Foreground" : "Background", static_cast<std::int32_t>(activationsRecorded_)));
}

// --- the record ----------------------------------------------------------------------------------------------------

std::uint64_t Model::wallMilliseconds() {
    const auto sinceReference = device_.scheduler.wallNow().time_since_epoch() - std::chrono::seconds(kReferenceEpoch);
    const double seconds = static_cast<double>(sinceReference.count()) / 1e9;
    return seconds <= 0 ? 0 : static_cast<std::uint64_t>(seconds * 1000.0);
}

Model::ActivationPointer Model::makeActivation(std::uint8_t statistics, const ActivationBegin& begin) {
    auto made = std::make_shared<Activation>();
    Activation& record = *made;
    const std::uint64_t now = wallMilliseconds();
    record.start = begin.time != 0 ? begin.time : now;
    if (begin.time == 0) log("QXActivationStats: We got no Start time for the activation");
    // Asked for pid 0, which no process has here.
    if (replay_.question(Op::processName, "0").error.value == 0) throw Mismatch{"process 0 has a name"};
    record.statistics = statistics;
    record.pid = begin.pid;
    record.bundle = begin.bundle;
    record.startState = static_cast<std::uint8_t>(begin.state);
    record.type = static_cast<std::uint8_t>(begin.type);
    // The time first: the boot time may take long to be had.
    const auto uptimeNow =
        std::chrono::floor<std::chrono::seconds>(device_.scheduler.wallNow().time_since_epoch()).count();
    if (replay_.question(Op::bootTime, "").error.value == 0 && device_.platform.host.bootTime != 0) {
        record.uptime = uptimeNow - device_.platform.host.bootTime;
    }
    const std::uint64_t latency = now - begin.sent;
    insertFlag(record.flags, latency / 50, 3);
    debug(print("QXActivationStats: Latency to get start message:%llu ms", static_cast<Number>(latency)));
    record.startLatency = static_cast<std::uint32_t>(latency);
    record.id = (record.start << 32) | ((hashOf(record.bundle) & 0xFFFF) << 16) |
                (static_cast<std::uint32_t>(record.pid) & 0xFFFF);
    record.startSnapshot = takeSnapshot(statistics);
    return made;
}

void Model::endActivation(Activation& record, std::uint8_t result, std::uint64_t time) {
    if (time == 0) log("QXActivationStats: We got no End time for the activation");
    const std::uint64_t now = wallMilliseconds();
    const std::uint64_t end = time != 0 ? time : now;
    record.wallTime = static_cast<std::uint32_t>(end) - static_cast<std::uint32_t>(record.start);
    const std::uint64_t latency = now - end;
    insertFlag(record.flags, latency / 50, 4);
    record.endLatency = static_cast<std::uint32_t>(latency);
    debug(print("QXActivationStats: Latency to get end message:%llu ms", static_cast<Number>(latency)));
    record.result = result;
    record.endSnapshot = takeSnapshot(record.statistics);
}

void Model::insertFlag(std::uint64_t& flags, std::uint64_t value, int index) {
    const unsigned position = index == 3 ? 8 : index == 4 ? 13 : 0;
    const std::uint64_t maximum = index == 5 ? 255 : 31;
    const std::uint64_t kept = std::min(value, maximum);
    flags |= kept << position;
    debug(print("QXActivationStats: Value to insert:%llx Output Value:%llx MaxValue:%llx Index:%d",
                static_cast<Number>(kept), static_cast<Number>(flags), static_cast<Number>(maximum),
                static_cast<int>(position)));
}

ModelSnapshot Model::takeSnapshot(std::uint8_t options) {
    ModelSnapshot snapshot;
    if (options & 1) {
        const auto listTasks = [&]() -> std::optional<std::vector<Task>> {
            const auto& table = device_.platform.processes.tasks;
            if (replay_.question(Op::listPids, "for the size").error.value != 0 || table.empty()) {
                log("QXActivationStats: get_cpu_stats: Process count returned less than zero\n");
                return std::nullopt;
            }
            const Record listed = replay_.question(Op::listPids, "into a buffer");
            if (listed.error.value != 0 || listed.number == 0) {
                log("get_cpu_stats: Found no processes\n");
                return std::nullopt;
            }
            std::vector<Task> tasks;
            const auto failed = [&](std::int32_t pid) {
                const Record usage = replay_.questionIfAsked(Op::resourceUsage, std::to_string(pid));
                if (usage.error.value == 0) return false;
                log(print("QXActivationStats: ** Failed to get rusage info for pid %d error:%s number:%d **", pid,
                          usage.error.text().c_str(), usage.error.value));
                return true;
            };
            for (const auto& task : std::span(table).first(listed.number)) {
                if (failed(task.pid)) continue;
                Task& kept = tasks.emplace_back(Task{task.pid, task.name.substr(0, 31), task.usage});
                const Record name = replay_.questionIfAsked(Op::processName, std::to_string(task.pid));
                if (name.error.value != 0) {
                    log(print("QXActivationStats: ** Process name not found for pid %d error:%s**", task.pid,
                              name.error.text().c_str()));
                    kept.name.clear();
                }
            }
            // Of the slots that nothing was filled into, the first is taken for the kernel, which has no usage here.
            if (listed.number < table.size() && !failed(0)) throw Mismatch{"process 0 has a usage"};
            return tasks;
        };
        snapshot.tasks = listTasks();
    }
    if (options & 2) {
        if (replay_.question(Op::hostStatistics, "38").error.value == 0) {
            snapshot.host = device_.platform.host.statistics;
        } else {
            log("QXActivationStats: get_vm_stats: vm_statistics64 failed to get vm stats\n");
        }
    }
    return snapshot;
}

// --- differences and events ----------------------------------------------------------------------------------------

std::optional<std::vector<ModelDifference>> Model::differences(const ModelSnapshot& start, const ModelSnapshot& end) {
    if (!start.tasks || !end.tasks) {
        log("QXActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n");
        return std::nullopt;
    }
    std::map<std::int32_t, std::pair<const Task*, const Task*>> byPid;
    for (const Task& task : *start.tasks) byPid[task.pid].first = &task;
    for (const Task& task : *end.tasks) byPid[task.pid].second = &task;
    std::vector<ModelDifference> all;
    for (const auto& [pid, tasks] : byPid) {
        const auto& [before, after] = tasks;
        ModelDifference& one = all.emplace_back(ModelDifference{.pid = pid});
        if (!before) {
            one.state = 1;
            one.name = after->name;
            one.usage = after->usage;
        } else if (!after) {
            one.state = 2;
            one.name = before->name;
        } else {
            one.name = after->name;
            if (one.name.empty() && before->name.find("vexproxy") == std::string::npos) {
                info(print("QXActivationStats: Got a valid process name for pid:%d in start snapshot %s. Using that\n",
                           pid, before->name.c_str()));
                one.name = before->name;
            }
            one.usage = usageDifference(before->usage, after->usage, pid);
        }
    }
    std::ranges::stable_sort(all, [](const auto& a, const auto& b) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(b.usage.userTime) -
                                         static_cast<std::uint32_t>(a.usage.userTime)) < 0;
    });
    return all;
}

ResourceUsage Model::usageDifference(const ResourceUsage& start, const ResourceUsage& end, std::int32_t pid) {
    using Field = std::uint64_t ResourceUsage::*;
    static constexpr Field kChecked[] = {&ResourceUsage::userTime,          &ResourceUsage::pageIns,
                                         &ResourceUsage::diskBytesRead,     &ResourceUsage::diskBytesWritten,
                                         &ResourceUsage::unspecifiedTime,   &ResourceUsage::backgroundTime,
                                         &ResourceUsage::utilityTime,       &ResourceUsage::legacyTime,
                                         &ResourceUsage::userInitiatedTime, &ResourceUsage::userInteractiveTime,
                                         &ResourceUsage::maintenanceTime};
    for (const Field field : kChecked) {
        if (end.*field >= start.*field) continue;
        log(
            print(" ******* QXActivationStats: Start values are greater than end values for Pid:%d StartUserTime:%llu "
                  "EndUserTime:%llu *******",
                  pid, static_cast<Number>(start.userTime), static_cast<Number>(end.userTime)));
        return end;
    }
    ResourceUsage difference{};
    for (const Field field : kChecked) difference.*field = end.*field - start.*field;
    difference.systemTime = end.systemTime - start.systemTime;
    return difference;
}

void Model::powerLog(Activation& record) {
    const std::string timestamp = shortest(static_cast<double>(record.start) / 1000.0);
    const auto activation = static_cast<Number>(record.id);
    std::vector<std::pair<std::int64_t, std::string>> cpu, processes;
    const auto addProcess = [&](std::int32_t pid, const std::string& name) {
        const auto unique = static_cast<Number>(uniqueID(pid, name));
        const std::string entry = print("\"%llu\":{\"Timestamp\":%s,\"UniqueID\":%llu,\"ProcessName\":\"%s\"}", unique,
                                        timestamp.c_str(), unique, name.c_str());
        // The events' map holds a unique identifier once, with the last name: pid -1, which a client may give its
        // activation, has the one of "OtherProcesses" whatever its name.
        const std::string key = print("\"%llu\":", unique);
        std::erase_if(processes, [&](const auto& known) { return known.second.starts_with(key); });
        processes.emplace_back(0, entry);
    };
    if (record.statistics & 1) {
        if (!std::exchange(otherProcessesSent_, true)) addProcess(-1, "OtherProcesses");
        const auto all = differences(record.startSnapshot, record.endSnapshot);
        if (all && !all->empty()) {
            Figures others;
            std::uint32_t otherCount = 0;
            std::int32_t largest = 0;
            for (std::size_t i = 0; i < all->size(); ++i) {
                const ModelDifference& one = (*all)[i];
                const std::string name = ascii(one.name);
                const bool significant = static_cast<double>(milliseconds(one.usage.userTime)) > cpuThreshold_;
                if (significant || one.state != 0 || one.pid == record.pid) {
                    Figures own;
                    own.add(one.usage);
                    cpu.emplace_back(static_cast<std::uint32_t>(one.usage.userTime),
                                     own.dictionary(timestamp, activation, uniqueID(one.pid, name), one.state));
                } else {
                    cpu.emplace_back(static_cast<std::uint32_t>(one.usage.userTime), std::string());
                    others.add(one.usage);
                    ++otherCount;
                }
                if (record.pid < largestPid_) {
                    log(
                        print(" ***** QXActivationStats:Pids rolled over! Resetting our state to track new pids [App "
                              "pid: %d. Last Seen:%d] *****",
                              record.pid, largestPid_));
                    largestPid_ = -1;
                }
                if (one.pid > largestPid_) {
                    largest = std::max(largest, one.pid);
                    addProcess(one.pid, name);
                }
            }
            if (largest != 0) largestPid_ = largest;
            log(print("QXActivationStats: Number of Other Processes:%d", static_cast<std::int32_t>(otherCount)));
            insertFlag(record.flags, otherCount, 5);
            cpu.emplace_back(-1, others.dictionary(timestamp, activation, uniqueID(-1, "OtherProcesses"), 0));
        }
    }
    const std::string appName = ascii(record.processName.value_or(record.bundle));
    addProcess(record.pid, appName);
    debug(print("QXActivationStats: Sending Activation Flags:%llx", static_cast<Number>(record.flags)));
    // The form of its object is not fixed.
    if (debugLines_) expectLineLike("d:QXActivationStats: StartTime we got");

    const std::string activationData = print(
        "{\"Timestamp\":%s,\"ActivationID\":%llu,\"UniqueID\":%llu,\"SystemUptime\":%lld,\"BundleID\":\"%s\","
        "\"ActivationDuration_ms\":%u,\"ActivationResult\":%u,\"ActivationType\":%u,\"ActivationFlags\":%llu}",
        timestamp.c_str(), activation, static_cast<Number>(uniqueID(record.pid, appName)),
        static_cast<long long>(record.uptime), record.bundle.c_str(), record.wallTime, record.result, record.type,
        static_cast<Number>(record.flags));
    replay_.expect(Op::powerEvent, "74 ActivationData " + activationData);

    const Record processData = replay_.expectAny(Op::powerEvent);
    expectDictionary(processData, "74 ProcessData ", processes);
    // Equal processes stand in any order, and their numbers with them.
    std::vector<std::pair<std::int64_t, std::string>> numbered;
    const Record cpuData = replay_.expectAny(Op::powerEvent);
    numberEntries(cpu, cpuData.what, numbered);
    expectDictionary(cpuData, "74 CPUStatistics ", numbered);

    std::string memory = "{";
    if (record.statistics & 2) {
        // A capture that failed is left out.
        const auto& start = record.startSnapshot.host;
        const auto& end = record.endSnapshot.host;
        if (start) memory += "\"1\":" + hostDictionary(*start, timestamp, activation, 1);
        if (start && end) memory += ",";
        if (end) memory += "\"2\":" + hostDictionary(*end, timestamp, activation, 2);
    }
    memory += "}";
    replay_.expect(Op::powerEvent, "74 MemoryStatistics " + memory);
    const auto shown = [](const Record& event) { return event.what.substr(event.what.find('{')); };
    debug("QXActivationStats: Activation Data:" + activationData + "\n");
    debug("QXActivationStats: CPU Data:" + shown(cpuData) + "\n");
    debug("QXActivationStats: VM Data:" + memory + "\n");
    debug("QXActivationStats: Process Data:" + shown(processData) + "\n");
}

void Model::expectLineLike(std::string_view beginning) {
    const Record line = replay_.expectAny(Op::logLine);
    if (line.what.starts_with(beginning)) return;
    throw Mismatch{"expected a line \"" + std::string(beginning) + "...\", got \"" + line.what + "\""};
}

void Model::expectDictionary(const Record& event, std::string_view title, const Ranked& entries) {
    if (event.what.starts_with(title) && isDictionaryOf(std::string_view(event.what).substr(title.size()), entries)) {
        return;
    }
    std::string wanted;
    for (const auto& [rank, entry] : entries) wanted += "\n    " + entry;
    throw Mismatch{"expected the event " + std::string(title) + "of the entries" + wanted + "\n  got " + event.what};
}

// The place of each process in the order is its key; folded processes leave theirs out.
void Model::numberEntries(const Ranked& ordered, std::string_view text, Ranked& numbered) {
    for (std::size_t first = 0; first < ordered.size();) {
        std::size_t last = first;
        while (last < ordered.size() && ordered[last].first == ordered[first].first) ++last;
        // Any process of equal CPU time may stand at any of their places.
        std::vector<bool> taken(last - first, false);
        for (std::size_t place = first; place < last; ++place) {
            const std::string key = ordered[place].first == -1 ? "\"-1\":" : print("\"%zu\":", place);
            for (std::size_t candidate = first; candidate < last; ++candidate) {
                const std::string& entry = ordered[candidate].second;
                if (entry.empty() || taken[candidate - first]) continue;
                if (last - first > 1 && text.find(key + entry) == std::string_view::npos) continue;
                taken[candidate - first] = true;
                numbered.emplace_back(static_cast<std::int64_t>(place), key + entry);
                break;
            }
        }
        for (std::size_t candidate = first; candidate < last; ++candidate) {
            if (ordered[candidate].second.empty() || taken[candidate - first]) continue;
            numbered.emplace_back(0, "missing: " + ordered[candidate].second);
        }
        first = last;
    }
}

// --- launch intervals ----------------------------------------------------------------------------------------------

void Model::launchBegin(std::int32_t pid, const std::string& bundle) {
    if (!internalBuild_) return;
    if (pid != 0 && pid != -1 && device_.signposts) {
        replay_.expect(Op::intervalBegin,
                       print("%u|appLaunch|appLaunch processBundleId=%%{signpost.telemetry:string1}s|%s|-|-",
                             static_cast<std::uint32_t>(pid), bundle.c_str()));
    }
    expectLaunchLine(bundle);
}

void Model::expectLaunchLine(const std::string& bundle) {
    const Record line = replay_.expectAny(Op::launchLine);
    if (line.what.starts_with("I:") && line.what.find(bundle) != std::string::npos) return;
    throw Mismatch{"expected an info line about the launch of " + bundle + ", got \"" + line.what + "\""};
}

void Model::launchEnd(std::int32_t pid, const std::string& bundle, bool valid) {
    if (!internalBuild_) return;
    const bool emits = pid != 0 && pid != -1 && device_.signposts;
    const std::string blanks(38, ' ');
    const std::string format = "appLaunch processBundleId=%{signpost.telemetry:string1}s" + blanks +
                               "appCPUTimeInMs=%{signpost.telemetry:number1}llu" + blanks +
                               "appIOInKB=%{signpost.telemetry:number2}llu";
    const auto emit = [&](const std::string& text, Number cpu, Number io) {
        if (!emits) return;
        replay_.expect(Op::intervalEnd, print("%u|appLaunch|%s|%s|%llu|%llu", static_cast<std::uint32_t>(pid),
                                              text.c_str(), bundle.c_str(), cpu, io));
    };
    const auto found = activations_.find(keyOf(pid, bundle));
    if (found == activations_.end() || !valid) return emit(format, 0, 0);
    Number cpu = 0, io = 0;
    if (const auto all = differences(found->second->startSnapshot, found->second->endSnapshot)) {
        for (const ModelDifference& one : *all) {
            if (one.pid != pid) continue;
            const double nanoseconds = static_cast<double>(one.usage.userTime + one.usage.systemTime) * kNsPerTick;
            cpu = static_cast<Number>(nanoseconds / 1000000.0);
            io = (one.usage.diskBytesRead + one.usage.diskBytesWritten) / 1000;
            break;
        }
    }
    emit(format + "enableTelemetry=YES", cpu, io);
    expectLaunchLine(bundle);
    replay_.expect(Op::launchLine, "I:stats for processBundleId: " + bundle);
    replay_.expect(Op::launchLine, "I:-----------------------------");
    replay_.expect(Op::launchLine, print("I:appCPUTimeInMs:%llu  appIOInKB: %llu", cpu, io));
}

}  // namespace quorvix::simulate
