#include "tools/skerrowctl/CommandLine.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace skerrowctl {

namespace {

bool contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

bool parseCount(const std::string& text, uint64_t* out) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  *out = std::strtoull(text.c_str(), nullptr, 10);
  return errno == 0;
}

}  // namespace

std::optional<std::string> CommandLine::value(const std::string& option) const {
  const auto it = values.find(option);
  if (it == values.end()) return std::nullopt;
  return it->second;
}

std::optional<CommandLine> CommandLine::parse(const std::vector<std::string>& argv,
                                              const std::vector<CommandEntry>& table, std::string* error) {
  CommandLine line;
  size_t i = 0;
  auto fail = [&](std::string why) -> std::optional<CommandLine> {
    *error = std::move(why);
    return std::nullopt;
  };
  // Global options come before the command.
  for (; i < argv.size() && argv[i].size() > 1 && argv[i][0] == '-'; ++i) {
    const std::string& option = argv[i];
    if (option == "--json") {
      line.json = true;
    } else if (option == "--session") {
      line.sessionBus = true;
    } else if (option == "--help" || option == "-h") {
      line.help = true;
    } else if (option == "--version") {
      line.version = true;
    } else if (option == "--user" || option == "--max-errors") {
      if (i + 1 >= argv.size()) return fail(option + " needs a value");
      const std::string& value = argv[++i];
      if (option == "--user") {
        line.user = value;
      } else if (!parseCount(value, &line.maximumErrors)) {
        return fail("--max-errors needs a whole number, not \"" + value + "\"");
      }
    } else {
      return fail("unknown option " + option);
    }
  }
  if (line.version) return line;  // whatever follows
  if (i == argv.size()) {
    if (line.help) return line;
    return fail("no command given");
  }
  const std::string& name = argv[i++];
  const auto entry = std::find_if(table.begin(), table.end(), [&](const CommandEntry& s) { return name == s.name; });
  if (entry == table.end()) return fail("unknown command \"" + name + "\"");
  line.command = &*entry;
  bool optionsEnded = false;
  for (; i < argv.size(); ++i) {
    const std::string& word = argv[i];
    if (!optionsEnded && word == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && (word == "--help" || word == "-h")) {
      line.help = true;
    } else if (!optionsEnded && word.size() > 2 && word.compare(0, 2, "--") == 0) {
      if (contains(entry->switches, word)) {
        line.switches.insert(word);
      } else if (contains(entry->valueOptions, word)) {
        if (i + 1 >= argv.size()) return fail(word + " needs a value");
        line.values[word] = argv[++i];
      } else {
        return fail(std::string("\"") + entry->name + "\" has no option " + word);
      }
    } else {
      line.arguments.push_back(word);
    }
  }
  if (line.help) return line;
  if (line.arguments.size() < entry->minArguments) return fail(std::string("\"") + entry->name + "\" needs more arguments");
  if (line.arguments.size() > entry->maxArguments) return fail(std::string("\"") + entry->name + "\" takes fewer arguments");
  return line;
}

}  // namespace skerrowctl
