// skerrowctl's shell completion offers exactly the commands and options of
// its command table: the bash completion is run in a real bash, the zsh one
// is checked for syntax by zsh and read for its command and option lists.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Engine/records/QSCategoryIdentifiers.h"
#include "tools/skerrowctl/Commands.h"

namespace {

const std::string kBashCompletion = SKERROW_SOURCE_DIR "/data/completions/skerrowctl.bash";
const std::string kZshCompletion = SKERROW_SOURCE_DIR "/data/completions/_skerrowctl";

std::string quoted(const std::string& word) {
  std::string out = "'";
  for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Runs a shell command; answers its standard output and sets *status.
std::string runShell(const std::string& command, int* status) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) {
    *status = -1;
    return output;
  }
  std::array<char, 4096> buffer{};
  size_t n;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) output.append(buffer.data(), n);
  *status = ::pclose(pipe);
  return output;
}

// What bash completes for the command line `words` (the last word is the one being completed).
std::set<std::string> bashCompletes(const std::vector<std::string>& words) {
  std::string array;
  for (const auto& w : words) array += " " + quoted(w);
  // PATH is emptied so that no installed skerrowctl is asked for uids.
  const std::string script = "source " + quoted(kBashCompletion) + "; PATH=/nonexistent; COMP_WORDS=(" + array +
                             "); COMP_CWORD=" + std::to_string(words.size() - 1) +
                             "; _skerrowctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
  int status = 0;
  const std::string output = runShell("/bin/bash --norc --noprofile -c " + quoted(script) + " 2>&1", &status);
  EXPECT_EQ(status, 0) << output;
  std::set<std::string> out;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) out.insert(line);
  return out;
}

std::set<std::string> tableCommands() {
  std::set<std::string> names;
  for (const auto& entry : skerrowctl::commandTable()) names.insert(entry.name);
  return names;
}

std::set<std::string> tableOptions(const skerrowctl::CommandEntry& entry) {
  std::set<std::string> options(entry.valueOptions.begin(), entry.valueOptions.end());
  options.insert(entry.switches.begin(), entry.switches.end());
  options.insert("--help");
  return options;
}

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(SkerrowctlCompletionTest, BashOffersEveryCommandOfTheTableAndNoOther) {
  EXPECT_EQ(bashCompletes({"skerrowctl", ""}), tableCommands());
  EXPECT_EQ(bashCompletes({"skerrowctl", "re"}), (std::set<std::string>{"restore"}));
  // After global options (and their values) the command is still what is completed.
  EXPECT_EQ(bashCompletes({"skerrowctl", "--json", "--user", "ann", ""}), tableCommands());
}

TEST(SkerrowctlCompletionTest, BashOffersTheGlobalOptions) {
  EXPECT_EQ(bashCompletes({"skerrowctl", "--"}),
            (std::set<std::string>{"--json", "--session", "--user", "--max-errors", "--help", "--version"}));
}

TEST(SkerrowctlCompletionTest, BashOffersEachCommandsOwnOptions) {
  for (const auto& entry : skerrowctl::commandTable())
    EXPECT_EQ(bashCompletes({"skerrowctl", entry.name, "--"}), tableOptions(entry)) << entry.name;
}

TEST(SkerrowctlCompletionTest, BashOffersTheSettingsOfSet) {
  EXPECT_EQ(bashCompletes({"skerrowctl", "set", "UID", ""}),
            (std::set<std::string>{"period", "keep", "depth", "scheduled", "category"}));
  std::set<std::string> categories(kAllCategories.begin(), kAllCategories.end());
  EXPECT_EQ(bashCompletes({"skerrowctl", "set", "UID", "category", ""}), categories);
  EXPECT_EQ(bashCompletes({"skerrowctl", "set", "UID", "category", "Movies", ""}),
            (std::set<std::string>{"on", "off"}));
  EXPECT_EQ(bashCompletes({"skerrowctl", "set", "UID", "scheduled", ""}), (std::set<std::string>{"on", "off"}));
  EXPECT_EQ(bashCompletes({"skerrowctl", "manage", "sdb1", "--categories", "Mo"}), (std::set<std::string>{"Movies"}));
}

TEST(SkerrowctlCompletionTest, ZshListsEveryCommandAndOptionOfTheTable) {
  int status = 0;
  if (runShell("command -v zsh", &status).empty()) GTEST_SKIP() << "zsh is not installed";
  const std::string check = runShell("zsh -n " + quoted(kZshCompletion) + " 2>&1; echo $?", &status);
  EXPECT_EQ(check, "0\n") << "zsh -n: " << check;

  const std::string text = fileText(kZshCompletion);
  // The command list: 'name:summary' lines in commands=( ... ).
  const auto start = text.find("commands=(");
  ASSERT_NE(start, std::string::npos);
  const std::string block = text.substr(start, text.find("\n  )", start) - start);
  std::set<std::string> listed;
  const std::regex entry("'([a-z]+):");
  for (auto it = std::sregex_iterator(block.begin(), block.end(), entry); it != std::sregex_iterator(); ++it)
    listed.insert((*it)[1]);
  EXPECT_EQ(listed, tableCommands());
  for (const auto& command : skerrowctl::commandTable()) {
    for (const auto& option : tableOptions(command)) {
      if (option == "--help") continue;
      EXPECT_NE(text.find("'" + option + "["), std::string::npos) << command.name << " " << option;
    }
  }
  for (const char* global : {"--json", "--session", "--user", "--max-errors", "--version"})
    EXPECT_NE(text.find(global), std::string::npos) << global;
}

}  // namespace
