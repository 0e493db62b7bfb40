#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "swivex/EventDecoder.h"
#include "swivex/RingPage.h"

// Events with every kind of field, in the form of the kernel's format files.
inline const quorvix::swivex::EventDecoder& ringPageDecoder() {
    static const quorvix::swivex::EventDecoder decoder = [] {
        quorvix::swivex::EventDecoder made;
        constexpr std::string_view kCommon =
            "\tfield:unsigned char common_flags;\toffset:2;\tsize:1;\tsigned:0;\n"
            "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n";
        const auto add = [&](std::string_view head, std::string_view fields) {
            made.add(quorvix::swivex::parseEventFormat(std::string(head).append(kCommon).append(fields)).value());
        };
        add("name: print\nID: 5\n", "\tfield:char buf[];\toffset:16;\tsize:0;\tsigned:0;\n");
        add("name: sched_switch\nID: 372\n",
            "\tfield:char prev_comm[16];\toffset:8;\tsize:16;\tsigned:0;\n"
            "\tfield:pid_t prev_pid;\toffset:24;\tsize:4;\tsigned:1;\n"
            "\tfield:long prev_state;\toffset:32;\tsize:8;\tsigned:1;\n"
            "\tfield:char next_comm[16];\toffset:40;\tsize:16;\tsigned:0;\n"
            "\tfield:pid_t next_pid;\toffset:56;\tsize:4;\tsigned:1;\n");
        add("name: sched_process_exec\nID: 370\n",
            "\tfield:__data_loc char[] filename;\toffset:8;\tsize:4;\tsigned:0;\n"
            "\tfield:__rel_loc char[] relative;\toffset:12;\tsize:4;\tsigned:0;\n"
            "\tfield:short small;\toffset:16;\tsize:2;\tsigned:1;\n");
        return made;
    }();
    return decoder;
}

// What must hold for any bytes taken as a ring page (its time in the first eight): every record and every text of its
// event lies inside them, and there are no more records than words. True when the page was whole.
inline bool ringPageHolds(std::string_view bytes) {
    using namespace quorvix::swivex;
    std::uint64_t time = 0;
    if (bytes.size() < sizeof time) return false;
    std::memcpy(&time, bytes.data(), sizeof time);
    const std::string_view data = bytes.substr(sizeof time);
    RingPage page(time, {reinterpret_cast<const std::uint8_t*>(data.data()), data.size()});
    std::size_t records = 0;
    bool holds = true;
    Event event;
    while (const auto record = page.next()) {
        const std::string_view own(reinterpret_cast<const char*>(record->data.data()), record->data.size());
        const auto inside = [&](std::string_view text) {
            return text.empty() || (text.data() >= own.data() && text.data() + text.size() <= own.data() + own.size());
        };
        holds = holds && ++records <= data.size() / 4 && own.data() >= data.data() &&
                own.data() + own.size() <= data.data() + data.size();
        if (!holds || !ringPageDecoder().decode(record->timeNs, record->data, event)) continue;
        const bool isSwitch = event.kind == EventKind::schedSwitch;
        holds = !isSwitch || (inside(event.prevComm) && inside(event.nextComm));
        holds = holds && (event.kind != EventKind::print || inside(event.text));
        for (const EventField& field : event.allFields()) holds = holds && (!field.isText || inside(field.text));
    }
    if (!holds) {
        std::fprintf(stderr, "ring page: an event that is not in the bytes\n");
        std::abort();
    }
    return !page.damaged() && records > 0;
}
