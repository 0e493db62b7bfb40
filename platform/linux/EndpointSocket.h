#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/Result.h"
#include "platform/linux/Descriptor.h"

namespace quorvix::linuxos {

// The sockets that the service manager opened for this process and passed on (LISTEN_FDS). Taken once, at start, before
// any thread or child exists; what nobody claims is closed with the object.
class PassedSockets {
public:
    // Claims what the environment passes and removes the variables: a child must not believe they are meant for it.
    static PassedSockets takeFromEnvironment();

    // The passed socket of that name, or the one bound to that path; none: an empty descriptor.
    Descriptor claim(std::string_view name, const std::string& path);

private:
    struct Socket {
        std::string name;
        Descriptor descriptor;
    };
    std::vector<Socket> sockets_;
};

// Whether the descriptor is a listening Unix socket of this type. EINVAL: it is something else.
Result<void> checkListening(int descriptor, int type);

// A listening Unix socket of `type` at `path`, close-on-exec and non-blocking. A socket that nobody listens on any more
// is replaced; who tries at the same time is held off by a lock on "<path>.lock". EADDRINUSE: somebody listens there.
// `failedStep` names the step that failed.
Result<Descriptor> bindEndpoint(const std::string& path, int type, mode_t mode, std::string& failedStep);

}  // namespace quorvix::linuxos
