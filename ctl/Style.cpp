#include "ctl/Style.h"

#include <unistd.h>

#include <cstdlib>

namespace quorvix::ctl {

namespace {

std::string_view beginOf(Colour colour) {
    switch (colour) {
        case Colour::good: return "\033[32m";
        case Colour::doubtful: return "\033[33m";
        case Colour::bad: return "\033[31m";
        case Colour::quiet: return "\033[2m";
        case Colour::strong: return "\033[1m";
    }
    return "";
}

// Set and not empty, as NO_COLOR wants to be read.
bool isSet(const char* name) {
    const char* value = std::getenv(name);
    return value && *value;
}

}  // namespace

std::string coloured(std::string_view text, Colour colour, bool colours) {
    if (!colours) return std::string(text);
    std::string shown(beginOf(colour));
    shown += text;
    shown += "\033[0m";
    return shown;
}

bool coloursWanted(int descriptor) {
    if (!isatty(descriptor) || isSet("NO_COLOR")) return false;
    const char* terminal = std::getenv("TERM");
    return terminal && *terminal && std::string_view(terminal) != "dumb";
}

}  // namespace quorvix::ctl
