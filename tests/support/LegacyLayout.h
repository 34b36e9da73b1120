// The older product's backups for the conversion's tests: the layout
// generator (skerrow_make_legacy) and its manifest, and the check that every
// legacy version is on the volume exactly once, where it belongs.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/PropertyList.h"
#include "tests/support/FileSystemImage.h"

namespace skerrow_test {

struct LegacyVersion {
  std::string computer;
  std::string user;
  std::string folder;     // relative to the home folder
  std::string name;       // the plain file name
  std::string newIndex;   // a number, "=" (keeps its legacy name) or "-" (not converted)
  std::string legacyPath; // relative to the state folder
  uint64_t size = 0;
  std::string hash;       // FNV-1a 64, hex
  int64_t modified = 0;   // seconds since 1970
};

struct LegacyUser {
  std::string computer;
  std::string name;
  std::string home;
  std::string uid;  // "-" before reassignment
};

struct LegacyManifest {
  std::vector<LegacyUser> users;
  std::vector<LegacyVersion> versions;

  static LegacyManifest read(const std::string& path) {
    LegacyManifest manifest;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
      std::vector<std::string> f;
      std::stringstream fields(line);
      for (std::string field; std::getline(fields, field, '\t');) f.push_back(field);
      if (f.size() == 5 && f[0] == "user") manifest.users.push_back({f[1], f[2], f[3], f[4]});
      if (f.size() == 10 && f[0] == "version")
        manifest.versions.push_back(
            {f[1], f[2], f[3], f[4], f[5], f[6], std::stoull(f[7]), f[8], static_cast<int64_t>(std::stoll(f[9]))});
    }
    return manifest;
  }
};

// Runs the generator with `arguments` (the volume last); its output on failure.
inline CommandResult makeLegacyLayout(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv = {SKERROW_MAKE_LEGACY};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return runCommand(argv);
}

inline uint64_t fnv1a(const std::string& bytes) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : bytes) hash = (hash ^ c) * 0x100000001b3ull;
  return hash;
}

inline std::string fileHash(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  char text[20];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(fnv1a(bytes)));
  return text;
}

// "name.ext" version i: "name@i.ext" (the engine's versioned names).
inline std::string versionedName(const std::string& name, const std::string& index) {
  const auto dot = name.rfind('.');
  if (dot == std::string::npos) return name + "@" + index;
  return name.substr(0, dot) + "@" + index + name.substr(dot);
}

// What a walk of the whole volume found of the manifest's versions.
struct LegacyCheck {
  size_t versions = 0;
  size_t lost = 0;               // bytes found nowhere
  size_t duplicated = 0;         // bytes found at more than one place
  size_t misplaced = 0;          // found once, but neither at the new name nor in the legacy tree
  size_t converted = 0;          // at their new name in "qs skerrow.skstor"
  size_t inProgress = 0;         // at their new name in the target under construction
  size_t inLegacyTree = 0;       // still at their legacy path
  size_t wrongDate = 0;          // converted, but with another modification time
  size_t unreadableLists = 0;    // information lists or state files that do not read
  size_t temporaries = 0;        // temporary files of interrupted atomic writes, left for the next run
  std::vector<std::string> problems;

  bool allConverted() const {
    return lost == 0 && duplicated == 0 && misplaced == 0 && wrongDate == 0 && unreadableLists == 0 &&
           temporaries == 0 && converted == versions;
  }
  bool nothingLost() const { return lost == 0 && duplicated == 0 && misplaced == 0 && unreadableLists == 0; }
  std::string summary() const {
    std::ostringstream out;
    out << versions << " versions: " << converted << " converted, " << inProgress << " in the target being built, "
        << inLegacyTree << " in the legacy tree; " << lost << " lost, " << duplicated << " duplicated, " << misplaced
        << " misplaced, " << wrongDate << " with another date, " << unreadableLists << " unreadable lists, "
        << temporaries << " temporary files";
    for (size_t i = 0; i < problems.size() && i < 10; ++i) out << "\n  " << problems[i];
    return out.str();
  }
};

// Walks `volume` (the trash folders left out) and places every version of
// the manifest.  A version counts as converted at "qs skerrow.skstor/<uid of
// its user>/<folder>/<new name>", with the uid read from the backups'
// information lists; as in progress at the same place in the target under
// construction (any uid folder); as in the legacy tree at its legacy path
// below any state folder.  Every information list and state file met must read.
inline LegacyCheck checkLegacyVersions(const std::string& volume, const LegacyManifest& manifest) {
  namespace fs = std::filesystem;
  static const char* kStateFolders[] = {
      "QS Tidevault",
      "QS Tidevault - WillPerformPathExamination",
      "QS Tidevault - DidPerformPathExamination",
      "QS Tidevault - WillPerformPathReassignment",
      "QS Tidevault - DidPerformPathReassignment",
      "QS Tidevault - WillPerformPathMovement",
      "QS Tidevault - DidPerformPathMovement",
  };
  const std::string final = volume + "/qs skerrow.skstor";
  const std::string target = volume + "/qs skerrow.skstor - IsPerformingPathMovement";
  LegacyCheck check;
  std::map<std::string, std::vector<std::string>> byHash;
  std::map<std::string, std::string> uidOfUser;  // short name to uid, from the information lists
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(volume, error); it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (error) break;
    const std::string path = it->path().string();
    if (it->is_directory(error) && it->path().filename().string().rfind(".Trash", 0) == 0) {
      it.disable_recursion_pending();
      continue;
    }
    if (it->is_symlink(error) || !it->is_regular_file(error)) continue;
    const std::string name = it->path().filename().string();
    if (name == ".com.qsc.backupinfo" || name == ".vessaToQSConversionStateInfo") {
      const auto list = platform::PropertyList::readFile(path);
      if (!list || !list->isDictionary()) {
        ++check.unreadableLists;
        check.problems.push_back("unreadable: " + path);
      } else if (name == ".com.qsc.backupinfo" && path.rfind(final + "/", 0) == 0) {
        const platform::Value* user = list->asDictionary()->find("short-name");
        const platform::Value* uid = list->asDictionary()->find("backup-uid");
        if (user && uid && user->asString() && uid->asString()) uidOfUser[*user->asString()] = *uid->asString();
      }
      continue;
    }
    if (name.rfind("..com.qsc.backupinfo.", 0) == 0 || name.rfind("..vessaToQSConversionStateInfo.", 0) == 0 ||
        name.rfind("..vessaToQSConversionNewBackups.", 0) == 0) {
      ++check.temporaries;
      check.problems.push_back("temporary: " + path);
      continue;
    }
    byHash[fileHash(path)].push_back(path);
  }
  for (const LegacyVersion& v : manifest.versions) {
    ++check.versions;
    const auto found = byHash.find(v.hash);
    if (found == byHash.end()) {
      ++check.lost;
      check.problems.push_back("lost: " + v.legacyPath);
      continue;
    }
    if (found->second.size() != 1) {
      ++check.duplicated;
      check.problems.push_back("duplicated: " + v.legacyPath + " at " + found->second.front() + " and " +
                               found->second.back());
      continue;
    }
    const std::string& at = found->second.front();
    const std::string leaf = v.legacyPath.substr(v.legacyPath.rfind('/') + 1);
    const std::string newName = v.newIndex == "=" ? leaf : versionedName(v.name, v.newIndex);
    const std::string below = (v.folder.empty() ? "" : v.folder + "/") + newName;
    bool placed = false;
    if (v.newIndex != "-") {
      const auto uid = uidOfUser.find(v.user);
      if (uid != uidOfUser.end() && at == final + "/" + uid->second + "/" + below) {
        ++check.converted;
        placed = true;
        struct stat st {};
        if (::lstat(at.c_str(), &st) != 0 || st.st_mtim.tv_sec != v.modified || st.st_mtim.tv_nsec != 0) {
          ++check.wrongDate;
          check.problems.push_back("another date: " + at);
        }
      } else if (at.rfind(target + "/", 0) == 0 && at.size() > target.size() + 38 &&
                 at.substr(target.size() + 38) == below) {
        ++check.inProgress;
        placed = true;
      }
    }
    for (const char* state : kStateFolders)
      if (!placed && at == volume + "/" + state + "/" + v.legacyPath) {
        ++check.inLegacyTree;
        placed = true;
      }
    if (!placed) {
      ++check.misplaced;
      check.problems.push_back("misplaced: " + v.legacyPath + " at " + at);
    }
  }
  return check;
}

}  // namespace skerrow_test
