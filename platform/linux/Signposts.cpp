#include "platform/linux/Signposts.h"

#include <fcntl.h>
#include <unistd.h>

namespace quorvix::linuxos {

namespace {

// What a line of the marker holds at least on every kernel: the rest of a longer one would be a line of its own.
constexpr std::size_t kLongestLine = 1000;

std::string numberOr0(const std::optional<std::uint64_t>& number) { return std::to_string(number.value_or(0)); }

std::string oneLine(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    }
    if (text.size() > kLongestLine) text.resize(kLongestLine);
    return text;
}

}  // namespace

std::string signpostText(std::string_view format, const SignpostTelemetry& telemetry) {
    constexpr std::string_view kBegin = "%{signpost.telemetry:";
    std::string text;
    for (;;) {
        const std::size_t at = format.find(kBegin);
        const std::size_t end = at == std::string_view::npos ? at : format.find('}', at);
        if (end == std::string_view::npos) return text.append(format);
        text.append(format.substr(0, at));
        const std::string_view slot = format.substr(at + kBegin.size(), end - at - kBegin.size());
        if (slot == "string1") text.append(telemetry.string1);
        if (slot == "number1") text.append(numberOr0(telemetry.number1));
        if (slot == "number2") text.append(numberOr0(telemetry.number2));
        format.remove_prefix(end + 1);
        for (const std::string_view conversion : {"llu", "s"}) {
            if (!format.starts_with(conversion)) continue;
            format.remove_prefix(conversion.size());
            break;
        }
    }
}

bool LinuxSignposts::enabled() { return ::access(markerPath_.c_str(), W_OK) == 0; }

void LinuxSignposts::intervalBegin(std::uint32_t identifier, std::string_view name, std::string_view format,
                                   const SignpostTelemetry& telemetry) {
    write('S', identifier, name, signpostText(format, telemetry));
}

void LinuxSignposts::intervalEnd(std::uint32_t identifier, std::string_view name, std::string_view format,
                                 const SignpostTelemetry& telemetry) {
    write('F', identifier, name, signpostText(format, telemetry));
}

void LinuxSignposts::write(char kind, std::uint32_t identifier, std::string_view name, std::string_view text) {
    const std::string pid = std::to_string(::getpid());
    const std::lock_guard lock(mutex_);
    // Not kept: the recorder can't be switched off while its marker is held open.
    const Descriptor marker(::open(markerPath_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!marker) {
        ++failed_;
        return;
    }
    writeLine(marker,
              oneLine(std::string(1, kind) + "|" + pid + "|" + std::string(name) + "|" + std::to_string(identifier)));
    writeLine(marker, oneLine("I|" + pid + "|" + std::string(text)));
}

void LinuxSignposts::writeLine(const Descriptor& marker, const std::string& line) {
    const std::string bytes = line + "\n";
    const ssize_t count = ::write(marker.get(), bytes.data(), bytes.size());
    ++(count == static_cast<ssize_t>(bytes.size()) ? written_ : failed_);
}

JsonObject LinuxSignposts::selfCounters() const {
    const std::lock_guard lock(mutex_);
    return {{"written", written_}, {"failed", failed_}};
}

}  // namespace quorvix::linuxos
