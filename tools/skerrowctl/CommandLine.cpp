#include "tools/skerrowctl/CommandLine.h"

#include <algorithm>
#include <deque>

#include <CLI/CLI.hpp>

namespace skerrowctl {

namespace {

bool parseCount(const std::string& text, uint64_t* out) {
  if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  *out = std::stoull(text);
  return true;
}

// CLI11's words for a mistake, in skerrowctl's own.
std::string explain(const CLI::ParseError& e, const CLI::App& app, const std::vector<std::string>& argv) {
  const std::string what = e.what();
  if (dynamic_cast<const CLI::ExtrasError*>(&e) && app.get_subcommands().empty()) {
    // The first word that is not an option was no command.
    for (const auto& word : argv)
      if (!word.empty() && word[0] != '-') return "unknown command \"" + word + "\"";
  }
  return what;
}

}  // namespace

std::optional<std::string> CommandLine::value(const std::string& option) const {
  const auto it = values.find(option);
  if (it == values.end()) return std::nullopt;
  return it->second;
}

bool CommandLine::wantsJson(const std::vector<std::string>& argv) {
  for (const auto& word : argv) {
    if (word == "--") break;
    if (word == "--json") return true;
  }
  return false;
}

std::optional<CommandLine> CommandLine::parse(const std::vector<std::string>& argv,
                                              const std::vector<CommandEntry>& table, std::string* error) {
  CommandLine line;
  auto fail = [&](std::string why) -> std::optional<CommandLine> {
    *error = std::move(why);
    return std::nullopt;
  };
  CLI::App app("skerrowctl", "skerrowctl");
  // --help is ours: it needs no engine and explains the table.
  app.set_help_flag();
  app.allow_extras(false);
  app.require_subcommand(0, 1);
  // A command's unknown options are the global ones: "list --json".
  app.fallthrough();
  app.add_flag("--json", line.json);
  app.add_flag("--session", line.sessionBus);
  app.add_flag("-h,--help", line.help);
  // Only the program's own --version: after "restore" the command's --version N wins.
  app.add_flag("--version", line.version);
  std::string user, maximumErrors;
  auto* userOption = app.add_option("--user", user);
  auto* maximumOption = app.add_option("--max-errors", maximumErrors);

  struct Parsed {
    const CommandEntry* entry;
    CLI::App* app;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> values;
    std::map<std::string, bool> switches;
  };
  std::deque<Parsed> commands;
  for (const auto& entry : table) {
    Parsed& parsed = commands.emplace_back(Parsed{&entry, nullptr, {}, {}, {}});
    CLI::App* sub = app.add_subcommand(entry.name, entry.summary);
    parsed.app = sub;
    sub->set_help_flag();
    sub->allow_extras(false);
    sub->add_flag("-h,--help", line.help);
    for (const auto& option : entry.valueOptions) sub->add_option(option, parsed.values[option]);
    for (const auto& option : entry.switches) sub->add_flag(option, parsed.switches[option]);
    if (entry.maxArguments > 0)
      sub->add_option("arguments", parsed.arguments)->expected(0, static_cast<int>(entry.maxArguments));
  }

  // "--" ends the options: what follows are arguments of the command, whatever they look like.
  const auto marker = std::find(argv.begin(), argv.end(), std::string("--"));
  const std::vector<std::string> literal(marker == argv.end() ? argv.end() : marker + 1, argv.end());
  std::vector<std::string> reversed(std::make_reverse_iterator(marker), argv.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::ParseError& e) {
    if ((line.help || line.version) && !dynamic_cast<const CLI::ExtrasError*>(&e)) return line;
    return fail(explain(e, app, argv));
  }
  if (maximumOption->count() > 0 && !parseCount(maximumErrors, &line.maximumErrors))
    return fail("--max-errors needs a whole number, not \"" + maximumErrors + "\"");
  if (userOption->count() > 0) line.user = user;
  for (auto& parsed : commands) {
    if (!parsed.app->parsed()) continue;
    line.command = parsed.entry;
    line.arguments = parsed.arguments;
    line.arguments.insert(line.arguments.end(), literal.begin(), literal.end());
    for (const auto& option : parsed.entry->valueOptions)
      if (parsed.app->get_option(option)->count() > 0) line.values[option] = parsed.values[option];
    for (const auto& [option, on] : parsed.switches)
      if (on) line.switches.insert(option);
  }
  if (line.help || line.version) return line;
  if (!line.command) return fail("no command given");
  const CommandEntry& entry = *line.command;
  if (line.arguments.size() < entry.minArguments)
    return fail(std::string("\"") + entry.name + "\" needs more arguments: " + entry.name + " " + entry.synopsis);
  if (line.arguments.size() > entry.maxArguments)
    return fail(std::string("\"") + entry.name + "\" takes fewer arguments: " + entry.name + " " + entry.synopsis);
  return line;
}

}  // namespace skerrowctl
