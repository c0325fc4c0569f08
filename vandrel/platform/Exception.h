#pragma once
// Root of vandrel's exception types: a std::exception that carries its message.
#include <exception>

#include "vandrel/platform/String.h"

class Exception : public std::exception {
public:
    explicit Exception(zo::string message) : message_(std::move(message)) {}
    ~Exception() override = default;

    // The message, or "Unknown exception" for an exception built without one.
    const char* what() const noexcept override {
        return message_.empty() ? "Unknown exception" : message_.c_str();
    }
    const zo::string& message() const noexcept { return message_; }

private:
    zo::string message_;
};
