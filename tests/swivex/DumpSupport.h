#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/quorvix_ticks.h"
#include "swivex/Dump.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/swivex/TraceReader.h"

namespace quorvix::swivex::tests {

inline std::string reasonOf(pid_t pid, long thread) {
    return R"({"Reason":"r","ServiceName":"s","ProcessPath":"/bin/x","PID":)" + std::to_string(pid) +
           R"(,"ThreadID":)" + std::to_string(thread) + R"(,"StartTime":1,"EndTime":2})";
}

// A dump into a file of a folder of its own, read back.
struct DumpedFile {
    quorvix::tests::TemporaryFolder folder;
    bool written = false;
    std::string bytes;
    std::vector<Message> packets;
    std::map<std::string, std::string> attribute;

    DumpedFile(const DumpRequest& request, const DumpSettings& settings) {
        const int fd = ::open(folder.path("dump").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        written = dump(fd, request, settings);
        ::close(fd);
        bytes = quorvix::tests::readWholeFile(folder.path("dump"));
        packets = packetsOf(bytes);
        attribute = attributesOf(packets);
    }

    // What the format's own compiler says of the file without its compressed pieces: lines of fields that it has no
    // name for, and whether it could read all of it. Empty: all is well. "skipped": it is not installed.
    std::string complaint() const {
        if (std::system("command -v protoc >/dev/null 2>&1") != 0) return "skipped";
        quorvix::tests::writeWholeFile(folder.path("plain"), withoutCompression(bytes));
        const std::string command = "protoc --decode=perfetto.protos.Trace -I" QUORVIX_SOURCE_FOLDER
                                    "/swivex trace_subset.proto < " +
                                    folder.path("plain") + " > " + folder.path("text") + " 2> " + folder.path("error");
        if (std::system(command.c_str()) != 0) return quorvix::tests::readWholeFile(folder.path("error"));
        // A field that the description lacks is printed by its number.
        const std::string search =
            "grep -nE '^ *[0-9]+(:| \\{)' " + folder.path("text") + " > " + folder.path("unknown");
        if (std::system(search.c_str()) != 0) return "";
        return quorvix::tests::readWholeFile(folder.path("unknown"));
    }
};

}  // namespace quorvix::swivex::tests
