// Every text that the model can expect is written in some run: a rule that no run reaches is not compared with
// anything.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "simulate/Simulation.h"

namespace quorvix::simulate {
namespace {

constexpr std::string_view kFolder = QUORVIX_SOURCE_FOLDER "/simulate/";
constexpr std::array kFiles = {"Model.cpp", "ModelActivations.cpp", "ModelHangs.cpp", "ModelMemory.cpp",
                               "ModelService.cpp"};
// What begins the statement of a text.
constexpr std::array<std::string_view, 7> kCalls = {
    "log(", "info(", "debug(", "Op::logLine,", "Op::launchLine,", "Op::intervalBegin,", "line.what =="};

struct Text {
    std::string literal;
    // What stands between its placeholders.
    std::vector<std::string> parts;
};

struct Unreachable {
    std::string_view text;
    std::string_view why;
};
// Kept true: a text that is written after all must leave this list.
constexpr std::array<Unreachable, 0> kUnreachable = {};

// One literal's text from its opening quotation mark on; `at` is behind its closing one then.
std::string unescaped(std::string_view source, std::size_t& at) {
    std::string text;
    for (++at; source[at] != '"'; ++at) {
        if (source[at] != '\\') {
            text += source[at];
            continue;
        }
        ++at;
        text += source[at] == 'n' ? '\n' : source[at] == 't' ? '\t' : source[at];
    }
    ++at;
    return text;
}

std::vector<std::string> partsOf(std::string_view format) {
    std::vector<std::string> parts(1);
    for (std::size_t at = 0; at < format.size(); ++at) {
        if (format[at] != '%') {
            parts.back() += format[at];
        } else if (format[at + 1] == '%') {
            parts.back() += format[at++];
        } else {
            at = format.find_first_of("csdiufgxp", at + 1);
            if (!parts.back().empty()) parts.emplace_back();
        }
    }
    if (parts.back().empty()) parts.pop_back();
    return parts;
}

// The literals of one statement; those that stand side by side are one.
void addLiterals(std::string_view statement, std::vector<Text>& texts) {
    std::string literal;
    bool joined = false;
    const auto finish = [&] {
        const auto parts = partsOf(literal);
        const auto longest = std::ranges::max_element(parts, {}, &std::string::size);
        // Shorter ones are words of a text, or said of a value.
        if (longest != parts.end() && longest->size() >= 5) texts.push_back({literal, parts});
        literal.clear();
    };
    for (std::size_t at = 0; at < statement.size();) {
        if (statement[at] == '"') {
            literal += unescaped(statement, at);
            joined = true;
        } else {
            if (joined && !std::isspace(static_cast<unsigned char>(statement[at]))) {
                finish();
                joined = false;
            }
            ++at;
        }
    }
    finish();
}

std::vector<Text> textsOf(const std::string& file) {
    std::stringstream stream;
    stream << std::ifstream(std::string(kFolder) + file).rdbuf();
    const std::string source = stream.str();
    std::vector<Text> texts;
    for (const std::string_view call : kCalls) {
        for (std::size_t at = source.find(call); at != std::string::npos; at = source.find(call, at + 1)) {
            if (std::isalnum(static_cast<unsigned char>(source[at - 1]))) continue;
            // Up to the end of the statement; no text has a semicolon before its end of line.
            const std::size_t end = source.find(";\n", at);
            addLiterals(std::string_view(source).substr(at, end - at), texts);
        }
    }
    return texts;
}

bool occursIn(const Text& text, std::string_view line) {
    std::size_t at = 0;
    for (const std::string& part : text.parts) {
        at = line.find(part, at);
        if (at == std::string_view::npos) return false;
        at += part.size();
    }
    return true;
}

TEST(Reach, EveryTextOfTheModelIsWrittenInSomeRun) {
    std::vector<Text> missing;
    for (const char* file : kFiles) {
        std::ranges::move(textsOf(file), std::back_inserter(missing));
    }
    ASSERT_GT(missing.size(), 80u) << "the model's texts are not found where they are looked for";
    Journal journal;
    journal.onLine = [&](std::string_view line) {
        std::erase_if(missing, [&](const Text& text) { return occursIn(text, line); });
    };
    // Chosen by what they reach together: many restarts, files in the way, a day in one process. Where the actions
    // change, others may be needed.
    struct {
        std::uint64_t seed, hours;
    } constexpr kRuns[] = {{3, 8}, {9, 8}, {10, 8}, {34, 34}, {1, 8}, {5, 8}, {27, 8}};
    for (const auto& [seed, hours] : kRuns) {
        if (missing.size() == kUnreachable.size()) break;
        const Outcome outcome = simulate({.seed = seed, .minutes = 60 * hours}, journal);
        EXPECT_EQ(outcome.failure.value_or(""), "") << "seed " << seed;
    }
    for (const Text& text : missing) {
        const bool listed = std::ranges::find(kUnreachable, text.literal, &Unreachable::text) != kUnreachable.end();
        EXPECT_TRUE(listed) << "never written: " << text.literal;
    }
    for (const Unreachable& one : kUnreachable) {
        EXPECT_NE(std::ranges::find(missing, one.text, &Text::literal), missing.end())
            << "is written after all, or gone: " << one.text;
    }
}

}  // namespace
}  // namespace quorvix::simulate
