#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Services.h"

namespace quorvix::sim {

// The simulated state service: keeps the provider and calls it when a test reads. Used on the test's thread.
class SimStateService final : public StateService {
public:
    void publish(std::string_view endpoint, const std::shared_ptr<WorkQueue>& queue,
                 std::function<JsonObject()> provider) override {
        endpoint_ = endpoint;
        queue_ = queue;
        provider_ = std::move(provider);
    }

    // What a reader would get now; an empty object before anything was published.
    JsonObject read() const { return provider_ ? provider_() : JsonObject{}; }
    const std::string& endpoint() const { return endpoint_; }
    const std::shared_ptr<WorkQueue>& queue() const { return queue_; }

private:
    std::string endpoint_;
    std::shared_ptr<WorkQueue> queue_;
    std::function<JsonObject()> provider_;
};

}  // namespace quorvix::sim
