#include "ctl/Commands.h"

void addRewalkCommand(CLI::App&, Command&) { }
