#pragma once

#include <cstdint>

namespace quorvix::linuxos {

// The quality-of-service class that a thread's scheduling stands for. The order is that of the counters in the usage
// record.
enum class QosClass : std::uint8_t {
    unspecified,
    maintenance,
    background,
    utility,
    legacy,
    userInitiated,
    userInteractive,
};
inline constexpr std::size_t kQosClassCount = 7;

// The kernel's numbers of the scheduling policies, which <sched.h> gives in part only.
inline constexpr std::uint32_t kPolicyFifo = 1;
inline constexpr std::uint32_t kPolicyRoundRobin = 2;
inline constexpr std::uint32_t kPolicyBatch = 3;
inline constexpr std::uint32_t kPolicyIdle = 5;
inline constexpr std::uint32_t kPolicyDeadline = 6;

// A real-time policy outranks every nice value, and an idle thread runs below every other whatever its nice value is.
// A batch thread is never above utility; a nice value of background and below still moves it down.
constexpr QosClass qosClassOf(std::uint32_t policy, std::int32_t nice) {
    if (policy == kPolicyFifo || policy == kPolicyRoundRobin || policy == kPolicyDeadline) {
        return QosClass::userInteractive;
    }
    if (policy == kPolicyIdle || nice >= 19) return QosClass::maintenance;
    if (nice >= 10) return QosClass::background;
    if (policy == kPolicyBatch || nice >= 1) return QosClass::utility;
    if (nice == 0) return QosClass::legacy;
    if (nice >= -9) return QosClass::userInitiated;
    return QosClass::userInteractive;
}

}  // namespace quorvix::linuxos
