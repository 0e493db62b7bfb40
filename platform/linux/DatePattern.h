#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quorvix::linuxos {

// A point of time as a calendar shows it.
struct CivilTime {
    int year;
    int month;  // 1..12
    int day;    // 1..31
    int hour;
    int minute;
    int second;
};

// A date pattern, read once: the letters "yyyy", "MM", "dd", "HH", "mm" and "ss" stand for a field with at least that
// many digits, everything else for itself.
class DatePattern {
public:
    explicit DatePattern(std::string_view pattern);
    std::string format(const CivilTime& time) const;

private:
    struct Piece {
        int CivilTime::*field;  // nullptr: literal text
        int digits;
        std::string literal;
    };

    std::vector<Piece> pieces_;
};

}  // namespace quorvix::linuxos
