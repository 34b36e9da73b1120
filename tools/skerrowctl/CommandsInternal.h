// The commands of skerrowctl, each a function of the context (see
// Context.h), and the helpers several of them share.  Commands.cpp holds
// the table that names and explains them.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/skerrowctl/Context.h"

namespace skerrowctl {

int listCommand(Context& c);
int manageCommand(Context& c);
int adoptCommand(Context& c);
int forgetCommand(Context& c);
int pauseCommand(Context& c);
int activateCommand(Context& c);
int backupCommand(Context& c);
int countCommand(Context& c);
int cancelCommand(Context& c);
int setCommand(Context& c);
int filterCommand(Context& c);
int heartbeatCommand(Context& c);
int conversionCommand(Context& c);
int versionsCommand(Context& c);
int restoreCommand(Context& c);
int mountCommand(Context& c);
int umountCommand(Context& c);
int agentCommand(Context& c);

// Pads each column to its widest cell, two spaces apart.
void printTable(std::ostream& out, const std::vector<std::vector<std::string>>& rows);
// A backup's settings as JSON (dates in ISO 8601).
Json entryJson(const QSBackupEntry& entry);
// A whole number the user typed; fails with kExitUsage naming `what`.
uint64_t parseWhole(const std::string& text, const std::string& what);
// The shortest prefix of `uid` (8 characters at least) that no other of `uids` shares.
std::string shortUID(const std::string& uid, const std::vector<std::string>& uids);

}  // namespace skerrowctl
