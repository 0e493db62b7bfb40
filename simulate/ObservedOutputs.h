#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include "platform/Platform.h"
#include "simulate/ObservedContext.h"

namespace quorvix::simulate::observed {

// What the daemon tells others: lines, counters, events, notices on the screen, and its own end.

inline std::string print(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

class Log final : public SystemLog {
public:
    explicit Log(Context& context) : context_(context) {}
    bool debugLines = false;

    bool enabled(std::string_view, std::string_view, LogLevel level) noexcept override {
        return debugLines || level != LogLevel::debug;
    }
    void write(std::string_view, std::string_view category, LogLevel level, std::string_view text) override {
        const Op op = category.empty() ? Op::logLine : category == "appLaunch" ? Op::launchLine : Op::platformLine;
        const char* const shown = level == LogLevel::standard ? "D:" : level == LogLevel::info ? "I:" : "d:";
        Record& record = context_.record(op, shown + std::string(text));
        // The daemon's own lines are not the model's, and may not move its time.
        if (op != Op::platformLine) context_.spend(record, context_.faults.take(op));
    }

private:
    Context& context_;
};

class Counters final : public CounterService {
public:
    explicit Counters(Context& context) : context_(context) {}
    void addToScalar(std::string_view key, std::int64_t value) override {
        context_.record(Op::counterAdd, std::string(key) + " " + std::to_string(value));
    }
    void setScalar(std::string_view key, std::int64_t value) override {
        context_.record(Op::counterSet, std::string(key) + " " + std::to_string(value));
    }
    void pushToDistribution(std::string_view key, std::string_view, double value) override {
        context_.record(Op::counterPush, std::string(key) + " " + print(value));
    }

private:
    Context& context_;
};

class Display final : public RenderServer {
public:
    explicit Display(Context& context) : context_(context) {}
    std::uint32_t port() override {
        const Fault fault = context_.faults.take(Op::hudPort);
        const std::uint32_t port = fault.fails() ? 0 : context_.device.renderServer.port();
        context_.record(Op::hudPort, {}).number = port;
        return port;
    }
    void setDebugMessage(std::uint32_t port, std::optional<std::string_view> text) override {
        Record& record = context_.record(Op::hudMessage, text ? "\"" + std::string(*text) + "\"" : "none");
        record.number = port;
        context_.spend(record, context_.faults.take(Op::hudMessage));
    }
    void releasePort(std::uint32_t port) override {
        context_.record(Op::hudRelease, {}).number = port;
        context_.device.renderServer.releasePort(port);
    }

private:
    Context& context_;
};

class Lifecycle final : public ProcessLifecycle {
public:
    explicit Lifecycle(Context& context) : context_(context) {}
    void ready() override { context_.record(Op::ready, {}); }
    [[noreturn]] void exit(int status) override {
        context_.record(Op::exitProcess, std::to_string(status));
        context_.trace.endWork();
        throw sim::SimulatedExit{status};
    }

private:
    Context& context_;
};

class Power final : public PowerLog {
public:
    explicit Power(Context& context) : context_(context) {}
    void sendEvent(std::int32_t category, std::string_view name, const PowerLogDictionary& dictionary) override {
        std::string what = std::to_string(category) + " " + std::string(name) + " ";
        appendTextForm(what, dictionary);
        Record& record = context_.record(Op::powerEvent, std::move(what));
        context_.spend(record, context_.faults.take(Op::powerEvent));
    }

private:
    Context& context_;
};

class Intervals final : public Signposts {
public:
    explicit Intervals(Context& context) : context_(context) {}
    bool enabled() override { return context_.device.signposts.enabled(); }
    void intervalBegin(std::uint32_t identifier, std::string_view name, std::string_view format,
                       const SignpostTelemetry& telemetry) override {
        add(Op::intervalBegin, identifier, name, format, telemetry);
    }
    void intervalEnd(std::uint32_t identifier, std::string_view name, std::string_view format,
                     const SignpostTelemetry& telemetry) override {
        add(Op::intervalEnd, identifier, name, format, telemetry);
    }

private:
    void add(Op op, std::uint32_t identifier, std::string_view name, std::string_view format,
             const SignpostTelemetry& telemetry) {
        std::string what = std::to_string(identifier) + "|" + std::string(name) + "|" + std::string(format) + "|" +
                           std::string(telemetry.string1);
        for (const auto& number : {telemetry.number1, telemetry.number2}) {
            what += "|" + (number ? std::to_string(*number) : "-");
        }
        context_.record(op, std::move(what));
    }
    Context& context_;
};

}  // namespace quorvix::simulate::observed
