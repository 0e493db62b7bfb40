#pragma once

#include "platform/Json.h"

namespace quorvix::linuxos {

// JSON serialisation. Writes the bytes itself: a library's tree would be a second copy of the object, would merge
// repeated members, and would write a number that is not finite as null where the caller must be told.
// Has no state; callable from any thread.
class LinuxJson : public JsonService {
public:
    Result<std::vector<std::uint8_t>> serialise(const JsonObject& object) override;
    Result<std::string> makeText(const std::vector<std::uint8_t>& bytes) override;
};

}  // namespace quorvix::linuxos
