#pragma once

#include "platform/Json.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// The real serialisation, which is pure, with failures on demand by method name.
class SimJson : public JsonService {
public:
    Result<std::vector<std::uint8_t>> serialise(const JsonObject& object) override;
    Result<std::string> makeText(const std::vector<std::uint8_t>& bytes) override;

    Faults faults;
};

}  // namespace quorvix::sim
