#pragma once

#include <string_view>

#include "platform/SystemLog.h"

namespace quorvix::linuxos {

// The journal's name of an event, 128 bits in hexadecimal. Fixed for ever: journals hold it, programs look for it, and
// packaging/quorvix.catalog explains each under the same name. Empty for none.
constexpr std::string_view messageIdOf(LogEventKind kind) {
    switch (kind) {
        case LogEventKind::none: return "";
        case LogEventKind::hang: return "acbb69bdebe449d9982196302dda561e";
        case LogEventKind::reportWritten: return "ed5c33d6db94438d8ada28b50928cfae";
        case LogEventKind::reportRefused: return "48ec2f319fb848ca848140f1432f6875";
        case LogEventKind::dailyReset: return "71921f3712e64445899825807eca6c81";
        case LogEventKind::activationRecorded: return "7341a9dfa84f4f4bbfadacffd1bde8a2";
        case LogEventKind::snapshotWritten: return "dceb736ba8704b3ba1035c767698e16a";
    }
    return "";
}

}  // namespace quorvix::linuxos
