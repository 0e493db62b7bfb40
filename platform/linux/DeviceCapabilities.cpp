#include "platform/linux/DeviceCapabilities.h"

namespace quorvix::linuxos {

bool LinuxDeviceCapabilities::booleanAnswer(std::string_view question) {
    const std::optional<PropertyListDictionary> answers = reader_.readDictionary(path_);
    if (!answers) return false;
    const auto found = answers->find(question);
    return found != answers->end() && found->second.boolean().value_or(false);
}

}  // namespace quorvix::linuxos
