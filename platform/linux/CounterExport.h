#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/CounterDatabase.h"

namespace quorvix::linuxos {

// Writes the counters as metrics text for the node exporter's textfile collector: <folder>/quorvix.prom, made under
// another name and renamed, so that a half-written file is never collected. Does nothing while the folder does not
// exist. The text is both OpenMetrics and the older exposition format. What clients choose becomes a label's value,
// never a metric's name. Used on the counter store's thread only.
class CounterExport {
public:
    explicit CounterExport(std::string folder) : folder_(std::move(folder)) {}

    // An error's text; nothing: written, or there is no folder.
    std::optional<std::string> write(CounterDatabase& database, const CounterRefusals& refusals);

private:
    std::string folder_;
};

}  // namespace quorvix::linuxos
