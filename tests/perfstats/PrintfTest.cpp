#include "perfstats/Printf.h"

#include <gtest/gtest.h>

namespace quorvix {
namespace {

// Around the length up to which a line is made in place.
TEST(Printf, AppendsTextsOfAnyLengthWhole) {
    for (const std::size_t length : {0u, 1u, 510u, 511u, 512u, 513u, 5000u}) {
        std::string text = "before ";
        appendPrintf(text, "%s", std::string(length, 'x').c_str());
        EXPECT_EQ(text, "before " + std::string(length, 'x'));
        appendPrintf(text, "%d", 5);
        EXPECT_EQ(text, "before " + std::string(length, 'x') + "5");
    }
}

}  // namespace
}  // namespace quorvix
