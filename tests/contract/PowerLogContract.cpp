#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/PowerLogStore.h"
#include "platform/linux/Sqlite.h"
#include "platform/sim/SimPowerLog.h"
#include "tests/support/PowerLogEvents.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::power_log_contract {
namespace {

using tests::kActivationCategory;
using tests::PowerLogEvents;

// What each world tells of the rows it holds, in the order of their sending; texts, so that both say it alike.
using Texts = std::vector<std::string>;

// Reads what is on disk through a connection of its own.
struct LinuxWorld {
    Texts rows(const std::string& select) {
        Texts found;
        linuxos::SqliteDatabase database(folder.path("wattrel.db"));
        linuxos::SqliteStatement statement(database, select);
        while (statement.step()) found.emplace_back(statement.bytes(0));
        return found;
    }
    Texts bundles() { return rows("SELECT BundleID FROM ActivationData ORDER BY Activation"); }
    Texts activationIDs() {
        return rows("SELECT printf('%llu', ActivationID) FROM ActivationData ORDER BY Activation");
    }
    Texts names() { return rows("SELECT ProcessName FROM ProcessData ORDER BY Activation, ProcessName"); }
    Texts cpuTimes() {
        return rows("SELECT CAST(TotalCPU_ms AS TEXT) FROM CPUStatistics ORDER BY Activation, TotalCPU_ms");
    }
    Texts sequences() {
        return rows("SELECT CAST(SequenceID AS TEXT) FROM MemoryStatistics ORDER BY Activation, SequenceID");
    }

    tests::TemporaryFolder folder;
    tests::RecordingLog log;
    linuxos::PowerLogStore powerLog{log, {.folder = folder.path()}};
};

struct SimWorld {
    // The values under `key` of an event's rows.
    Texts values(const std::string& event, const std::string& key) {
        Texts found;
        for (const auto& sent : powerLog.events()) {
            if (sent.category != kActivationCategory || sent.name != event) continue;
            if (event == "ActivationData") {
                append(sent.dictionary, key, found);
                continue;
            }
            for (const auto& entry : sent.dictionary.entries()) {
                append(std::get<PowerLogDictionary>(entry.second.content()), key, found);
            }
        }
        return found;
    }
    static void append(const PowerLogDictionary& row, const std::string& key, Texts& found) {
        for (const auto& [name, value] : row.entries()) {
            if (name != PowerLogKey(key)) continue;
            if (const auto* text = std::get_if<std::string>(&value.content())) {
                found.push_back(*text);
            } else {
                appendTextForm(found.emplace_back(), value);
            }
        }
    }
    Texts bundles() { return values("ActivationData", "BundleID"); }
    Texts activationIDs() { return values("ActivationData", "ActivationID"); }
    Texts names() { return values("ProcessData", "ProcessName"); }
    Texts cpuTimes() { return values("CPUStatistics", "TotalCPU_ms"); }
    Texts sequences() { return values("MemoryStatistics", "SequenceID"); }

    sim::SimPowerLog powerLog;
};

template <class World>
class PowerLogContract : public testing::Test {
protected:
    World world_;
};

using Worlds = testing::Types<LinuxWorld, SimWorld>;
TYPED_TEST_SUITE(PowerLogContract, Worlds);

TYPED_TEST(PowerLogContract, KeepsTheFourEventsOfAnActivation) {
    PowerLogEvents{}.sendTo(this->world_.powerLog);
    EXPECT_EQ(this->world_.bundles(), Texts{"com.example.app"});
    EXPECT_EQ(this->world_.names(), (Texts{"process0", "process1"}));
    EXPECT_EQ(this->world_.cpuTimes(), (Texts{"1", "101"}));
    EXPECT_EQ(this->world_.sequences(), (Texts{"1", "2"}));
}

TYPED_TEST(PowerLogContract, KeepsActivationsInTheirOrder) {
    for (const char* bundle : {"b", "a", "b"}) PowerLogEvents{.bundleID = bundle}.sendTo(this->world_.powerLog);
    EXPECT_EQ(this->world_.bundles(), (Texts{"b", "a", "b"}));
    EXPECT_EQ(this->world_.sequences(), (Texts{"1", "2", "1", "2", "1", "2"}));
}

TYPED_TEST(PowerLogContract, KeepsUnsignedNumbersToTheLargest) {
    for (const std::uint64_t number :
         {std::uint64_t{0}, std::uint64_t{1} << 63, std::numeric_limits<std::uint64_t>::max()}) {
        PowerLogEvents{.activationID = number}.sendTo(this->world_.powerLog);
    }
    EXPECT_EQ(this->world_.activationIDs(), (Texts{"0", "9223372036854775808", "18446744073709551615"}));
}

TYPED_TEST(PowerLogContract, TheSameIdentifierTwiceIsTwoActivations) {
    PowerLogEvents{.activationID = 5}.sendTo(this->world_.powerLog);
    PowerLogEvents{.activationID = 5}.sendTo(this->world_.powerLog);
    EXPECT_EQ(this->world_.activationIDs(), (Texts{"5", "5"}));
}

TYPED_TEST(PowerLogContract, KeepsAnActivationWithoutProcessesOrMemory) {
    PowerLogEvents events;
    this->world_.powerLog.sendEvent(kActivationCategory, "ActivationData", events.activationData());
    this->world_.powerLog.sendEvent(kActivationCategory, "ProcessData", {});
    this->world_.powerLog.sendEvent(kActivationCategory, "CPUStatistics", {});
    this->world_.powerLog.sendEvent(kActivationCategory, "MemoryStatistics", {});
    EXPECT_EQ(this->world_.bundles(), Texts{"com.example.app"});
    EXPECT_EQ(this->world_.names(), Texts());
    EXPECT_EQ(this->world_.cpuTimes(), Texts());
    EXPECT_EQ(this->world_.sequences(), Texts());
}

}  // namespace
}  // namespace quorvix::power_log_contract
