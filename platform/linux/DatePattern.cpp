#include "platform/linux/DatePattern.h"

#include <cstdio>

namespace quorvix::linuxos {

namespace {

struct FieldLetters {
    std::string_view letters;
    int CivilTime::*field;
};

constexpr FieldLetters kFields[] = {
    {"yyyy", &CivilTime::year}, {"MM", &CivilTime::month},  {"dd", &CivilTime::day},
    {"HH", &CivilTime::hour},   {"mm", &CivilTime::minute}, {"ss", &CivilTime::second},
};

const FieldLetters* fieldAt(std::string_view pattern) {
    for (const FieldLetters& field : kFields) {
        if (pattern.starts_with(field.letters)) return &field;
    }
    return nullptr;
}

}  // namespace

DatePattern::DatePattern(std::string_view pattern) {
    while (!pattern.empty()) {
        if (const FieldLetters* field = fieldAt(pattern)) {
            pieces_.push_back({field->field, static_cast<int>(field->letters.size()), {}});
            pattern.remove_prefix(field->letters.size());
            continue;
        }
        if (pieces_.empty() || pieces_.back().field) pieces_.push_back({nullptr, 0, {}});
        pieces_.back().literal += pattern.front();
        pattern.remove_prefix(1);
    }
}

std::string DatePattern::format(const CivilTime& time) const {
    std::string out;
    for (const Piece& piece : pieces_) {
        if (!piece.field) {
            out += piece.literal;
            continue;
        }
        char digits[16];
        std::snprintf(digits, sizeof digits, "%0*d", piece.digits, time.*piece.field);
        out += digits;
    }
    return out;
}

}  // namespace quorvix::linuxos
