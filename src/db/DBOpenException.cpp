#include "db/DBOpenException.h"

const char* DBOpenException::what() const noexcept { return "DBOpenException occurred"; }
