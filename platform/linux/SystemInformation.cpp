#include "platform/linux/SystemInformation.h"

#include <sys/utsname.h>

#include "platform/linux/TextFile.h"

namespace quorvix::linuxos {

namespace {

constexpr std::size_t kLongestOsRelease = 65536;
constexpr std::string_view kEscapedInQuotes = "\"\\$`";

// The value of one assignment as a shell takes it; ends at the line's end or at a blank outside of quotes.
std::string shellValue(std::string_view text) {
    std::string value;
    char quote = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (quote == '\'') {
            if (c == '\'') {
                quote = 0;
            } else {
                value += c;
            }
        } else if (c == '\\' && at + 1 < text.size()) {
            const char next = text[++at];
            // Inside double quotes the backslash in front of any other character stands for itself.
            if (quote && kEscapedInQuotes.find(next) == std::string_view::npos) value += '\\';
            value += next;
        } else if (quote) {
            if (c == '"') {
                quote = 0;
            } else {
                value += c;
            }
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            break;
        } else {
            value += c;
        }
    }
    return value;
}

}  // namespace

SystemVersion parseOsRelease(std::string_view text) {
    SystemVersion version;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const std::size_t blanks = line.find_first_not_of(" \t");
        if (blanks == std::string_view::npos) continue;
        line.remove_prefix(blanks);
        const auto take = [&](std::string_view key, std::optional<std::string>& value) {
            if (line.starts_with(key)) value = shellValue(line.substr(key.size()));
        };
        take("NAME=", version.productName);
        take("VERSION_ID=", version.productVersion);
        take("BUILD_ID=", version.buildVersion);
    }
    return version;
}

SystemVersion LinuxSystemInformation::version() {
    for (const std::string& file : files_) {
        if (const auto text = readTextFile(file, kLongestOsRelease)) return parseOsRelease(*text);
    }
    return {};
}

std::string LinuxSystemInformation::machine() {
    utsname name{};
    // Fails for a bad address only.
    if (uname(&name) != 0) return {};
    return name.machine;
}

}  // namespace quorvix::linuxos
