#pragma once

#include <string>
#include <utility>
#include <variant>

namespace quorvix::swivex {

// Why something could not be had: a sentence for the report's reader.
struct Problem {
    std::string text;
};

// A value, or the problem that prevented it.
template <class T>
class [[nodiscard]] Outcome {
public:
    Outcome(T value) : content_(std::in_place_index<0>, std::move(value)) {}
    Outcome(Problem problem) : content_(std::in_place_index<1>, std::move(problem)) {}

    explicit operator bool() const { return content_.index() == 0; }
    // Precondition: holds a value.
    T& operator*() { return std::get<0>(content_); }
    const T& operator*() const { return std::get<0>(content_); }
    T* operator->() { return &std::get<0>(content_); }
    const T* operator->() const { return &std::get<0>(content_); }
    // Precondition: holds a problem.
    const std::string& problem() const { return std::get<1>(content_).text; }

private:
    std::variant<T, Problem> content_;
};

}  // namespace quorvix::swivex
