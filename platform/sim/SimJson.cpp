#include "platform/sim/SimJson.h"

#include "platform/linux/Json.h"

namespace quorvix::sim {

Result<std::vector<std::uint8_t>> SimJson::serialise(const JsonObject& object) {
    if (const auto fault = faults.take("serialise")) return *fault;
    return linuxos::LinuxJson().serialise(object);
}

Result<std::string> SimJson::makeText(const std::vector<std::uint8_t>& bytes) {
    if (const auto fault = faults.take("makeText")) return *fault;
    return linuxos::LinuxJson().makeText(bytes);
}

}  // namespace quorvix::sim
