#pragma once

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/SystemInformation.h"

// What must hold for any bytes taken as an os-release text: a value is no longer than the text, stands on one line, and
// written down again with every character quoted it is read as the same. True when it names anything.
inline bool osReleaseHolds(std::string_view bytes) {
    using namespace quorvix;
    const SystemVersion version = linuxos::parseOsRelease(bytes);
    std::string again;
    bool holds = true;
    const auto check = [&](std::string_view key, const std::optional<std::string>& value) {
        if (!value) return;
        holds = holds && value->size() < bytes.size() && value->find('\n') == std::string::npos;
        again.append(key).append("=");
        for (const char c : *value) again.append("\\").append(1, c);
        again.append("\n");
    };
    check("NAME", version.productName);
    check("VERSION_ID", version.productVersion);
    check("BUILD_ID", version.buildVersion);
    const SystemVersion same = linuxos::parseOsRelease(again);
    holds = holds && same.productName == version.productName && same.productVersion == version.productVersion &&
            same.buildVersion == version.buildVersion;
    if (!holds) {
        std::fprintf(stderr, "os-release: a value that the text does not give\n");
        std::abort();
    }
    return !again.empty();
}
