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

// Letters to change, add or take away to turn one word into the other.
size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// The command someone who typed `word` most likely meant: the one other
// tools call by that name, or one a slip of a letter or two away; empty
// when none is near.
std::string likelyCommand(const std::string& word, const CLI::App& app) {
  static const std::pair<const char*, const char*> kOtherNames[] = {
      {"status", "list"},  {"info", "list"},     {"ls", "list"},     {"show", "list"},   {"run", "backup"},
      {"start", "backup"}, {"now", "backup"},    {"stop", "cancel"}, {"abort", "cancel"}, {"add", "manage"},
      {"init", "manage"},  {"remove", "forget"}, {"rm", "forget"},   {"history", "versions"}};
  for (const auto& [other, command] : kOtherNames)
    if (word == other) return command;
  std::string best;
  size_t bestDistance = 3;  // a slip of at most two letters
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    const size_t distance = editDistance(word, command->get_name());
    if (distance < bestDistance && distance < command->get_name().size()) {
      best = command->get_name();
      bestDistance = distance;
    }
  }
  return best;
}

// CLI11's words for a mistake, in skerrowctl's own.
std::string explain(const CLI::ParseError& e, const CLI::App& app, const std::vector<std::string>& argv) {
  const std::string what = e.what();
  if (dynamic_cast<const CLI::ExtrasError*>(&e) && app.get_subcommands().empty()) {
    // The first word that is not an option was no command.
    for (const auto& word : argv) {
      if (word.empty() || word[0] == '-') continue;
      const std::string meant = likelyCommand(word, app);
      return "unknown command \"" + word + "\"" + (meant.empty() ? "" : " (did you mean \"" + meant + "\"?)");
    }
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
