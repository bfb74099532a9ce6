#include "core/QRWException.h"

QRWException::QRWException(const std::string& text)
    : message(text)
{
}

QRWException::~QRWException() = default;

const char* QRWException::what() { return message.c_str(); }
