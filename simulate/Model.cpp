#include "simulate/Model.h"

#include <utility>

#include "simulate/Text.h"

namespace quorvix::simulate {

Model::Model(ModelDevice& device, Replay& replay, bool debugLines)
    : device_(device), replay_(replay), debugLines_(debugLines) {
    for (const QueueName name : {QueueName::daemon, QueueName::activation, QueueName::output}) {
        queues_[name] =
            std::make_shared<sim::SimWorkQueue>(device_.scheduler, nameOf(name), QualityOfService::standard);
    }
}

Work Model::onQueue(QueueName queue, Work work) {
    return [this, queue, work = std::move(work)] {
        replay_.beginWork(queue);
        work();
        replay_.endWork();
    };
}

void Model::post(QueueName queue, Work work) { queues_[queue]->async(onQueue(queue, std::move(work))); }

void Model::later(QueueName queue, std::chrono::nanoseconds delay, Work work) {
    queues_[queue]->asyncAfter(delay, onQueue(queue, std::move(work)));
}

// "yyyy-MM-dd-HHmmss", local time.
std::string Model::stamp() {
    const WallTime now = device_.scheduler.wallNow();
    const auto local = std::chrono::floor<std::chrono::seconds>(now) + device_.zone(now);
    const auto day = std::chrono::floor<std::chrono::days>(local);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(local - day);
    return print("%04d-%02u-%02u-%02d%02d%02d", int(date.year()), unsigned(date.month()), unsigned(date.day()),
                 int(clock.hours().count()), int(clock.minutes().count()), int(clock.seconds().count()));
}

}  // namespace quorvix::simulate
