// skerrowctl's commands: the table that describes them and `run`, which
// parses the command line, reaches the engine and carries one out.
//
// Exit status: 0 done; 1 the engine or the file system refused or failed
// (a backup that did not complete, a version that is not stored, ...); 2 a
// mistake on the command line; 3 the engine could not be reached or
// refused the client (AccessDenied); 130 interrupted.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/skerrowctl/CommandLine.h"

namespace skerrowctl {

const std::vector<CommandEntry>& commandTable();
int run(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err);

}  // namespace skerrowctl
