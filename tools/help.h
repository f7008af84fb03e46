// The texts of talvern --help and talvern COMMAND --help.
#pragma once

#include "options.h"

#include <string>

namespace tool {

std::string GeneralHelp();
std::string CommandHelp(Command command);

} // namespace tool
