#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include "platform/WorkQueue.h"
#include "simulate/ObservedContext.h"

namespace quorvix::simulate::observed {

// The queues: each piece of work is one that the model repeats.

class Queue final : public WorkQueue {
public:
    Queue(Context& context, std::shared_ptr<WorkQueue> inner, QueueName name)
        : context_(context), inner_(std::move(inner)), name_(name) {}

    void async(Work work) override { inner_->async(observed(std::move(work))); }
    void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
        inner_->asyncAfter(delay, observed(std::move(work)));
    }
    void asyncAt(WallTime time, Work work) override { inner_->asyncAt(time, observed(std::move(work))); }
    std::unique_ptr<RepeatingTimer> makeTimer(Work handler) override {
        return inner_->makeTimer([&context = context_, name = name_, handler = std::move(handler)] {
            context.trace.beginWork(name);
            handler();
            context.trace.endWork();
        });
    }
    const std::string& label() const override { return inner_->label(); }

private:
    // What the work holds goes with it, inside of it.
    Work observed(Work work) const {
        return [&context = context_, name = name_, work = std::move(work)]() mutable {
            context.trace.beginWork(name);
            {
                const Work held = std::move(work);
                held();
            }
            context.trace.endWork();
        };
    }

    Context& context_;
    std::shared_ptr<WorkQueue> inner_;
    QueueName name_;
};

class Queues final : public QueueService {
public:
    explicit Queues(Context& context) : context_(context) {}
    std::shared_ptr<WorkQueue> makeSerialQueue(std::string_view label, QualityOfService quality) override {
        const QueueName name = label.ends_with("activationqueue") ? QueueName::activation
                               : label.ends_with("logoutput")     ? QueueName::output
                                                                  : QueueName::daemon;
        return std::make_shared<Queue>(context_, context_.device.queues.makeSerialQueue(label, quality), name);
    }
    [[noreturn]] void runMain() override {
        context_.device.scheduler.giveMainThread();
        throw sim::MainThreadGiven{};
    }

private:
    Context& context_;
};

}  // namespace quorvix::simulate::observed
