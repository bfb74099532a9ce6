#pragma once

#include <exception>
#include <string>

/// A start-up failure with its message.
class QRWException : public std::exception {
public:
    explicit QRWException(const std::string& text);
    ~QRWException() override;

    /// The message. On purpose this hides the virtual what() const of the base and does not override it: only code that
    /// catches a QRWException by its own type sees the message.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual" // clang's -Wall asks for it
    const char* what();
#pragma GCC diagnostic pop

private:
    std::string message;
};
