#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "report/HangReport.h"
#include "report/ReportText.h"

// What must hold for any bytes taken as a hang report: the times of the thread add up to the hang, the shown text holds
// no control character, and the first half of the bytes, or all but the last, never makes a complete file of a complete
// one. True when it was taken as a hang report.
inline bool hangReportHolds(std::string_view bytes) {
    using namespace quorvix::report;
    const auto read = [](std::string_view part) {
        const Bytes file(reinterpret_cast<const std::uint8_t*>(part.data()), part.size());
        return analyse([&](const PacketFile::Visitor& visit) {
            return scanPackets(file, visit, {.packet = 1 << 20, .inflated = 1 << 20, .inflatedInAll = 4 << 20});
        });
    };
    const HangReport report = read(bytes);
    const auto fail = [](const char* what) {
        std::fprintf(stderr, "hang report: %s\n", what);
        std::abort();
    };
    std::uint64_t sum = 0;
    for (const std::uint64_t time : report.timeline.timeNs) sum += time;
    if (report.isHangReport && sum != report.window.length()) fail("the times do not add up to the hang");
    for (const ToldWait& told : report.waits) {
        if (told.wait.inWindowNs > report.window.length()) fail("a wait is longer than the hang");
    }
    const std::string text = reportText(report);
    for (const char byte : text) {
        if ((static_cast<unsigned char>(byte) < 0x20 && byte != '\n') || byte == 0x7f) fail("a control character");
    }
    if (reportJson(report).empty()) fail("no JSON");
    if (report.incomplete.empty()) {
        if (read(bytes.substr(0, bytes.size() / 2)).incomplete.empty()) fail("half a file is complete");
        if (read(bytes.substr(0, bytes.size() - 1)).incomplete.empty()) fail("a cut file is complete");
    }
    return report.isHangReport;
}
