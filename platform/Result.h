#pragma once

#include <string>
#include <system_error>
#include <utility>
#include <variant>

namespace quorvix {

// A system error number. Its text form is what strerror gives.
struct ErrorCode {
    int value = 0;

    std::string text() const { return std::generic_category().message(value); }
    bool operator==(const ErrorCode&) const = default;
};

// A value, or the system error that prevented it.
template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
    Result(ErrorCode error) : content_(std::in_place_index<1>, error) {}

    explicit operator bool() const { return content_.index() == 0; }
    // Precondition: holds a value.
    T& operator*() { return std::get<0>(content_); }
    const T& operator*() const { return std::get<0>(content_); }
    T* operator->() { return &std::get<0>(content_); }
    const T* operator->() const { return &std::get<0>(content_); }
    // Precondition: holds an error.
    ErrorCode error() const { return std::get<1>(content_); }

private:
    std::variant<T, ErrorCode> content_;
};

template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(ErrorCode error) : error_(error), failed_(true) {}

    explicit operator bool() const { return !failed_; }
    // Precondition: failed.
    ErrorCode error() const { return error_; }

private:
    ErrorCode error_;
    bool failed_ = false;
};

}  // namespace quorvix
