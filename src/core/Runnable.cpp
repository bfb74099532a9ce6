#include "core/Runnable.h"

Runnable::~Runnable() = default;
