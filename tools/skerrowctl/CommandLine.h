// skerrowctl's command line: global options, a command, its arguments and
// its own options, checked against the command's table entry.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace skerrowctl {

// What a command accepts, and how it is explained.
struct CommandEntry {
  const char* name;
  const char* synopsis;  // arguments and options after the name
  const char* summary;   // one line
  const char* details;   // the rest of its --help
  size_t minArguments;
  size_t maxArguments;
  std::vector<std::string> valueOptions;  // "--to" takes a value
  std::vector<std::string> switches;      // "--overwrite" does not
};

struct CommandLine {
  // Global options.
  bool json = false;
  bool sessionBus = false;
  std::optional<std::string> user;  // the user name the client claims
  uint64_t maximumErrors = 0;
  bool help = false;
  bool version = false;  // --version: print the version, nothing else

  const CommandEntry* command = nullptr;
  std::vector<std::string> arguments;
  std::map<std::string, std::string> values;
  std::set<std::string> switches;

  bool has(const std::string& option) const { return switches.count(option) != 0; }
  std::optional<std::string> value(const std::string& option) const;

  // Parses argv; answers the command line, or nothing with the reason.
  static std::optional<CommandLine> parse(const std::vector<std::string>& argv, const std::vector<CommandEntry>& table,
                                          std::string* error);
};

}  // namespace skerrowctl
