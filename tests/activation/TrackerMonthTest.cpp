#include <map>
#include <random>

#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {
namespace {

using namespace std::chrono_literals;

// A month of a device's life against a plain model of what the tracker is to do: storms of launches and resumes, ends
// without begins, begins that time out, nights, clock changes of the zone and of the user, first unlocks.
class TrackerMonth : public ActivationWorld {
protected:
    static constexpr unsigned kSeed = 20260301;
    static constexpr std::uint32_t kLimit = 40;

    // Clocks go forward at 2026-03-29 00:00 local time: that midnight does not exist.
    static std::chrono::seconds zone(WallTime time) {
        return time >= std::chrono::sys_days(std::chrono::year(2026) / 3 / 29) - 2h ? 3h : 2h;
    }

    struct Model {
        struct Open {
            std::int32_t state;
            std::int32_t type;
            std::uint64_t time;
        };
        struct Sent {
            std::string bundleID;
            std::uint64_t duration;
            std::uint64_t result;
            std::uint64_t type;
            bool operator==(const Sent&) const = default;
        };
        std::map<std::string, Open> open;
        std::multimap<std::chrono::nanoseconds, std::string> timeOuts;
        std::uint32_t count = 0;
        std::vector<Sent> sent;
        std::uint64_t timedOut = 0;
        std::uint64_t twice = 0;
        std::uint64_t alone = 0;
        std::uint64_t refused = 0;
        std::uint64_t midnights = 0;
        WallTime fires{};

        // The start of the next local day, found by walking; a quarter of an hour is the finest that zones know.
        static WallTime dayAfter(WallTime now) {
            const auto day = [](WallTime time) { return std::chrono::floor<std::chrono::days>(time + zone(time)); };
            WallTime at = std::chrono::floor<std::chrono::hours>(now);
            while (day(at) <= day(now)) at += 15min;
            return at;
        }
        void arm(WallTime now) {
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(dayAfter(now) - now);
            fires = now + (seconds > 0s ? seconds : 60s);
        }
        void begin(const Begin& step, std::chrono::nanoseconds now) {
            const std::string key = std::to_string(step.pid) + ":" + step.bundleID;
            if (!open.try_emplace(key, Open{step.state, step.type, step.time}).second) {
                ++twice;
                return;
            }
            timeOuts.emplace(now + 60s, key);
        }
        // limitCount: what the count was when the burst began.
        void end(const End& step, std::uint32_t limitCount) {
            const std::string key = std::to_string(step.pid) + ":" + step.bundleID;
            const auto found = open.find(key);
            Open of{step.state, 0, step.time};
            std::uint64_t result = 32;
            if (found != open.end()) {
                of = found->second;
                result = static_cast<std::uint64_t>(step.result);
                open.erase(found);
            } else {
                ++alone;
            }
            if (of.state != 1 || step.state != 1 || limitCount >= kLimit) {
                ++refused;
                return;
            }
            ++count;
            sent.push_back({step.bundleID, static_cast<std::uint32_t>(step.time - of.time), result,
                            static_cast<std::uint64_t>(of.type)});
        }
        void advance(std::chrono::nanoseconds monotonic, WallTime wall) {
            while (!timeOuts.empty() && timeOuts.begin()->first <= monotonic) {
                timedOut += open.erase(timeOuts.begin()->second);
                timeOuts.erase(timeOuts.begin());
            }
            while (fires <= wall) {
                count = 0;
                ++midnights;
                // Where the clock was set past it, it is reached now.
                arm(std::max(fires, steppedTo));
            }
        }
        WallTime steppedTo{};
    };

    TrackerMonth() {
        device.scheduler.setWallClock(std::chrono::sys_days(std::chrono::year(2026) / 3 / 1) + 9h);
        device.wallClock.setTimeZone(zone);
        device.log.setEnabled(LogLevel::debug, false);
        settings().maxActivationCount = kLimit;
        (void)tracker();
        model.arm(device.scheduler.wallNow());
    }

    std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random_() % bound); }
    std::string bundle() { return std::string(1, static_cast<char>('a' + below(4))); }
    std::uint64_t now() { return activationTimeNow(); }

    // One to fifteen begins and ends that arrive at once.
    void burst() {
        const std::uint32_t counted = model.count;
        const std::uint32_t steps = below(6) == 0 ? 15 : 1 + below(2);
        for (std::uint32_t i = 0; i < steps; ++i) {
            const auto pid = static_cast<std::int32_t>(100 + below(4));
            const std::int32_t state = below(8) == 0 ? 0 : 1;
            if (below(2) == 0) {
                const Begin step{.pid = pid,
                                 .bundleID = bundle(),
                                 .time = now() - below(500),
                                 .vexStartTime = now() - below(300),
                                 .state = state,
                                 .type = static_cast<std::int32_t>(below(2))};
                queueBegin(step);
                model.begin(step, device.scheduler.monotonicNow());
            } else {
                const End step{.pid = pid,
                               .bundleID = bundle(),
                               .time = now() - below(300),
                               .state = state,
                               .result = static_cast<std::int32_t>(below(30))};
                queueEnd(step);
                model.end(step, counted);
            }
        }
        device.scheduler.runPending();
    }
    void pass(std::chrono::nanoseconds duration) {
        device.scheduler.advance(duration);
        model.advance(device.scheduler.monotonicNow(), device.scheduler.wallNow());
    }
    void setClock(std::chrono::seconds by) {
        const WallTime to = device.scheduler.wallNow() + by;
        device.scheduler.setWallClock(to);
        model.steppedTo = to;
        model.advance(device.scheduler.monotonicNow(), to);
    }
    std::vector<Model::Sent> sentByTracker() {
        std::vector<Model::Sent> found;
        for (const auto& event : device.powerLog.events()) {
            if (event.name != "ActivationData") continue;
            Model::Sent sent{};
            for (const auto& [key, value] : event.dictionary.entries()) {
                const std::string& name = std::get<std::string>(key);
                if (name == "BundleID") sent.bundleID = std::get<std::string>(value.content());
                if (name == "ActivationDuration_ms") sent.duration = std::get<std::uint64_t>(value.content());
                if (name == "ActivationResult") sent.result = std::get<std::uint8_t>(value.content());
                if (name == "ActivationType") sent.type = std::get<std::uint8_t>(value.content());
            }
            found.push_back(sent);
        }
        return found;
    }

    Model model;
    std::mt19937 random_{kSeed};
};

TEST_F(TrackerMonth, GoesAsTheModelSays) {
    SCOPED_TRACE("seed " + std::to_string(kSeed));
    std::size_t linesOfTimeOut = 0;
    std::size_t linesOfTwice = 0;
    std::size_t linesOfAlone = 0;
    std::size_t linesOfRefused = 0;
    std::size_t linesOfMidnight = 0;
    const WallTime last = device.scheduler.wallNow() + 31 * 24h;
    while (device.scheduler.wallNow() < last) {
        const std::uint32_t storms = below(10) == 0 ? 6 : 1;
        for (std::uint32_t i = 0; i < storms; ++i) {
            burst();
            pass(std::chrono::milliseconds(below(40'000)));
        }
        pass(std::chrono::milliseconds(below(3'600'000)));
        if (below(100) == 0) setClock(std::chrono::seconds(static_cast<int>(below(7200)) - 3600));
        if (below(200) == 0) {
            device.notifications.post("com.norvane.mobile.sentinad.first_unlock");
            device.scheduler.runPending();
        }
        ASSERT_EQ(open(), model.open.size());
        ASSERT_EQ(recorded(), model.count);
        ASSERT_EQ(sentByTracker(), model.sent);
        model.sent.clear();
        device.powerLog.clear();
        for (const std::string& line : texts()) {
            linesOfTimeOut += line.find("Did not find an end call entry") != std::string::npos;
            linesOfTwice += line.find("An entry already exists") != std::string::npos;
            linesOfAlone += line.find("Did not find an existing entry") != std::string::npos;
            linesOfRefused += line.find("Activation not recorded for") != std::string::npos;
            linesOfMidnight += line.find("Timer Fired at") != std::string::npos;
        }
        device.log.clear();
    }
    EXPECT_EQ(linesOfTimeOut, model.timedOut);
    EXPECT_EQ(linesOfTwice, model.twice);
    EXPECT_EQ(linesOfAlone, model.alone);
    EXPECT_EQ(linesOfRefused, model.refused);
    EXPECT_EQ(linesOfMidnight, model.midnights);
    // The month held everything that it is about.
    EXPECT_GT(model.timedOut, 100u);
    EXPECT_GT(model.twice, 20u);
    EXPECT_GT(model.alone, 100u);
    EXPECT_GE(model.midnights, 31u);
    EXPECT_EQ(tracker().counters().droppedSteps, 0u);
}

}  // namespace
}  // namespace quorvix::test
