#pragma once

#include <string>
#include <string_view>

#include "platform/Preferences.h"
#include "platform/linux/PropertyListReader.h"

namespace quorvix::linuxos {

// The device's answers from a property list that belongs to the image: question -> boolean. Read at each question,
// since it is asked once in the life of the daemon. Used on one thread at a time.
class LinuxDeviceCapabilities final : public DeviceCapabilities {
public:
    explicit LinuxDeviceCapabilities(SystemLog& log, std::string path = "/etc/quiddle.plist")
        : reader_(log), path_(std::move(path)) {}

    bool booleanAnswer(std::string_view question) override;

private:
    LinuxPropertyListReader reader_;
    std::string path_;
};

}  // namespace quorvix::linuxos
