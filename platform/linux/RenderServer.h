#pragma once

#include "platform/Services.h"

namespace quorvix::linuxos {

// Linux has no render server with a debug message, and there is no substitute: the port is always 0.
class LinuxRenderServer : public RenderServer {
public:
    std::uint32_t port() override { return 0; }
    void setDebugMessage(std::uint32_t, std::optional<std::string_view>) override {}
    void releasePort(std::uint32_t) override {}
};

}  // namespace quorvix::linuxos
