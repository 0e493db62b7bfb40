#pragma once

#include <string>
#include <string_view>

namespace quorvix::ctl {

enum class Colour { good, doubtful, bad, quiet, strong };

// The text in a colour, or as it is where there are none: colours are for a terminal whose user wants them, which is
// decided once, by coloursWanted.
std::string coloured(std::string_view text, Colour colour, bool colours);

// Whether what goes to this descriptor may be coloured: a terminal, which is not a dumb one, and no NO_COLOR.
bool coloursWanted(int descriptor);

}  // namespace quorvix::ctl
