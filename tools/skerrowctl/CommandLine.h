// skerrowctl's command line: global options, a command, its arguments and
// its own options, checked against the command's table entry.
//
// Parsed with CLI11.  Global options may stand before or after the command
// ("skerrowctl --json list" and "skerrowctl list --json"); a command's own
// options may come anywhere after it; "--" ends the options, so paths may
// start with dashes; "--to=DEST" and "--to DEST" are the same.
#pragma once

#include <cstddef>
#include <cstdint>
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

// The error limit skerrowctl asks of the engine unless --max-errors says
// otherwise: the engine's own default, so that a disk that fills stops the
// backup instead of failing every file in turn.
inline constexpr uint64_t kDefaultMaximumErrors = 100;

struct CommandLine {
  // Global options.
  bool json = false;
  bool sessionBus = false;
  std::optional<std::string> user;  // the user name the client claims
  uint64_t maximumErrors = kDefaultMaximumErrors;
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
  // Whether argv asks for JSON output, as far as it can be told before (or
  // without) a successful parse: so that a mistake is reported as JSON too.
  static bool wantsJson(const std::vector<std::string>& argv);
};

}  // namespace skerrowctl
