#include "db/DBOperationException.h"

const char* DBOperationException::what() const noexcept { return "DBOperationException occurred"; }
