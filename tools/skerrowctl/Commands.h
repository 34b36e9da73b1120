// skerrowctl's commands: the table that describes them and `run`, which
// parses the command line, reaches the engine and carries one out.  Exit
// statuses: see ExitStatus.h.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/skerrowctl/CommandLine.h"

namespace skerrowctl {

const std::vector<CommandEntry>& commandTable();
int run(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err);

}  // namespace skerrowctl
