#include "ctl/Commands.h"

void addStatusCommand(CLI::App&, Command&) { }
