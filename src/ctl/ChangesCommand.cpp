#include "ctl/Commands.h"

void addChangesCommand(CLI::App&, Command&) { }
