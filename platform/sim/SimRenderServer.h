#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Services.h"

namespace quorvix::sim {

struct DebugMessage {
    std::uint32_t port;
    std::optional<std::string> text;
    bool operator==(const DebugMessage&) const = default;
};

// A render server that a test can switch on: it has none (port 0) until setPort(). One thread.
class SimRenderServer : public RenderServer {
public:
    void setPort(std::uint32_t port) { port_ = port; }

    std::uint32_t port() override {
        ++portQueries_;
        if (port_ != 0) ++portReferences_;
        return port_;
    }
    void setDebugMessage(std::uint32_t port, std::optional<std::string_view> text) override {
        messages_.push_back({port, text ? std::optional<std::string>(*text) : std::nullopt});
    }
    void releasePort(std::uint32_t) override { --portReferences_; }

    void forgetMessages() { messages_.clear(); }
    const std::vector<DebugMessage>& messages() const { return messages_; }
    // Ports given out and not released: above 0 is a leak, below 0 a release too many.
    std::int64_t portReferences() const { return portReferences_; }
    std::uint64_t portQueries() const { return portQueries_; }

private:
    std::uint32_t port_ = 0;
    std::int64_t portReferences_ = 0;
    std::uint64_t portQueries_ = 0;
    std::vector<DebugMessage> messages_;
};

}  // namespace quorvix::sim
