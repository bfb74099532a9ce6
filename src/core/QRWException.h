#pragma once

#include <exception>
#include <string>

/// A start-up failure with its message.
class QRWException : public std::exception {
public:
    explicit QRWException(const std::string& text);
    ~QRWException() override;

    /// The message. Hides the virtual what() const of the base on purpose, which keeps its own text: only code that
    /// catches a QRWException by name is meant to see the message.
    const char* what();

private:
    std::string message;
};
