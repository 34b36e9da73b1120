#include "Engine/files/QSBlackList.h"

#include <atomic>
#include <cctype>
#include <cstring>
#include <optional>
#include <functional>
#include <string_view>
#include <unordered_set>
#include <mutex>
#include <vector>

#include "Engine/support/CollectionUtils.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/PropertyList.h"

namespace {

// Exact shortcuts for the common case, taken only for ASCII text, where
// ICU's case-insensitive matching is plain ASCII case-insensitive matching:
//  - when every file item and extension item is a literal, a file name is
//    black-listed exactly when it equals a file item, or when it splits as
//    A "." B with A non-empty and free of line terminators (what "(.+\.)"
//    accepts) and B equal to an extension item;
//  - a suffix can match only an item whose literal beginning it starts
//    with; when it starts with none, it does not match (otherwise the full
//    expression decides).
// Looked up by view: the name tested is not copied for each lookup.
struct ViewHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};
using LiteralSet = std::unordered_set<std::string, ViewHash, std::equal_to<>>;

struct FastPaths {
  bool namesUsable = false;
  LiteralSet files;       // lower-cased literals
  LiteralSet extensions;  // lower-cased literals
  bool suffixesUsable = false;
  bool noSuffixItems = false;
  std::vector<std::string> suffixPrefixes;  // lower-cased literal beginnings
};

struct State {
  std::string fileNamePattern;
  std::string pathSuffixPattern;
  std::shared_ptr<const platform::RegexPredicate> fileBlacklister;
  std::shared_ptr<const platform::RegexPredicate> pathSuffixBlacklister;
  FastPaths fast;
};

bool isAscii(const std::string& s) {
  for (unsigned char c : s)
    if (c >= 0x80) return false;
  return true;
}

std::string asciiLower(const std::string& s) {
  std::string out = s;
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

bool isRegexSpecial(char c) { return std::strchr("\\^$.|?*+()[]{}", c) != nullptr; }

// The text an ICU expression matches when it is a plain literal (letters and
// other ordinary characters, and backslash-escaped punctuation); nothing otherwise.
std::optional<std::string> literalOf(const std::string& item) {
  if (!isAscii(item)) return std::nullopt;
  std::string out;
  for (size_t i = 0; i < item.size(); ++i) {
    const char c = item[i];
    if (c == '\\') {
      if (i + 1 >= item.size() || std::isalnum(static_cast<unsigned char>(item[i + 1]))) return std::nullopt;
      out += item[++i];
    } else if (isRegexSpecial(c)) {
      return std::nullopt;
    } else {
      out += c;
    }
  }
  return out;
}

// The literal text every match of the item begins with ("" when none is certain).
std::string literalBeginning(const std::string& item) {
  if (!isAscii(item) || item.find('|') != std::string::npos) return "";
  std::string out;
  for (size_t i = 0; i < item.size(); ++i) {
    const char c = item[i];
    if (c == '*' || c == '+' || c == '?' || c == '{') {
      if (!out.empty()) out.pop_back();  // the character before a quantifier may be absent or repeated
      break;
    }
    if (c == '\\') {
      if (i + 1 >= item.size() || std::isalnum(static_cast<unsigned char>(item[i + 1]))) break;
      out += item[++i];
    } else if (isRegexSpecial(c)) {
      break;
    } else {
      out += c;
    }
  }
  return asciiLower(out);
}

FastPaths fastPathsFor(const std::vector<std::string>& files, const std::vector<std::string>& extensions,
                       const std::vector<std::string>& suffixes) {
  FastPaths fast;
  fast.namesUsable = true;
  auto addLiterals = [&](const std::vector<std::string>& items, LiteralSet* set) {
    if (items.empty()) set->insert("");  // the empty group matches only the empty text
    for (const std::string& item : items) {
      const auto literal = literalOf(item);
      if (!literal) fast.namesUsable = false;
      else set->insert(asciiLower(*literal));
    }
  };
  addLiterals(files, &fast.files);
  addLiterals(extensions, &fast.extensions);
  fast.noSuffixItems = suffixes.empty();
  fast.suffixesUsable = true;
  for (const std::string& item : suffixes) {
    std::string beginning = literalBeginning(item);
    if (beginning.empty()) fast.suffixesUsable = false;
    fast.suffixPrefixes.push_back(std::move(beginning));
  }
  return fast;
}

bool fastNameMatch(const FastPaths& fast, const std::string& name) {
  // Lower-cased into a buffer on the stack: a file name is at most 255
  // bytes, and this runs for every item of every walk of a home folder.
  char buffer[256];
  std::string longer;
  char* lowered = buffer;
  if (name.size() > sizeof buffer) {
    longer.resize(name.size());
    lowered = longer.data();
  }
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    lowered[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  const std::string_view lower(lowered, name.size());
  if (fast.files.count(lower)) return true;
  for (size_t i = 1; i < lower.size(); ++i) {
    const char c = lower[i - 1];
    if (c == '\n' || c == '\v' || c == '\f' || c == '\r') break;  // "(.+" stops at a line terminator
    if (lower[i] == '.' && fast.extensions.count(lower.substr(i + 1))) return true;
  }
  return false;
}

std::atomic<std::shared_ptr<const State>> gState;
std::once_flag gInitialized;

std::string parenthesize(const std::string& item) { return "(" + item + ")"; }

// The items of one array of the list; items that do not compile on their own are left out.
std::vector<std::string> itemsOf(const platform::Dictionary* list, const char* key, bool logLeftOut = true) {
  std::vector<std::string> items;
  if (!list) return items;
  const platform::Value* array = list->find(key);
  if (!array || !array->isArray()) return items;
  for (const platform::Value& v : *array->asArray()) {
    if (!v.isString()) continue;
    std::string error;
    if (!platform::RegexPredicate::isValidExpression(parenthesize(*v.asString()), &error)) {
      if (logLeftOut)
        platform::Log::format("Black list item %s of %s does not compile and is left out: %s", v.asString()->c_str(),
                              key, error.c_str());
      continue;
    }
    items.push_back(*v.asString());
  }
  return items;
}

std::string joined(const std::vector<std::string>& items) {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i) out += "|";
    out += items[i];
  }
  return out;
}

std::shared_ptr<const State> current() {
  QSBlackList::initialize();
  return gState.load();
}

}  // namespace

void QSBlackList::initializeWithInfoDictionary(const platform::Dictionary& info) {
  const platform::Value* listValue = info.find("QSBlackList");
  const platform::Dictionary* list = listValue ? listValue->asDictionary() : nullptr;
  std::vector<std::string> extensions = itemsOf(list, "QSFileExtensions");
  std::vector<std::string> specificFiles = itemsOf(list, "QSSpecificFiles");
  std::vector<std::string> suffixes = itemsOf(list, "QSHomeDirSuffixes");
  transformUsingFunction(extensions, parenthesize);
  transformUsingFunction(specificFiles, parenthesize);
  transformUsingFunction(suffixes, parenthesize);

  const std::string extensionPattern = "(.+\\.)(" + joined(extensions) + ")";
  const std::string specificFilePattern = "(" + joined(specificFiles) + ")";
  auto state = std::make_shared<State>();
  state->pathSuffixPattern = "(" + joined(suffixes) + ")";
  state->fileNamePattern = "(" + extensionPattern + ")|(" + specificFilePattern + ")";
  state->fileBlacklister = platform::RegexPredicate::selfMatchesCaseInsensitive(state->fileNamePattern);
  state->pathSuffixBlacklister = platform::RegexPredicate::selfMatchesCaseInsensitive(state->pathSuffixPattern);
  state->fast = fastPathsFor(itemsOf(list, "QSSpecificFiles", false), itemsOf(list, "QSFileExtensions", false),
                             itemsOf(list, "QSHomeDirSuffixes", false));
  platform::Log::line("Black list:");
  platform::Log::format("file names: %s", state->fileNamePattern.c_str());
  platform::Log::format("path suffixes: %s", state->pathSuffixPattern.c_str());
  platform::Log::line("");
  gState.store(std::move(state));
}

std::string QSBlackList::administratorSettingsFilePath() {
  const auto root = platform::Process::environmentVariable("SKERROW_ROOT");
  return (root ? *root : std::string()) + SKERROW_SYSCONFDIR "/skerrow/Info.plist";
}

std::string QSBlackList::defaultSettingsFilePath() {
  return platform::Process::executableDirectory() + "/../share/skerrow/Info.plist";
}

std::string QSBlackList::initializeFromSettingsFiles(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    if (!platform::FileManager::fileExistsAtPath_traverseLink(path, true)) continue;
    const auto settings = platform::PropertyList::readFile(path);
    if (!settings || !settings->isDictionary()) {
      platform::Log::format("The settings at %s cannot be read as a property list; they are passed over", path.c_str());
      continue;
    }
    platform::Log::format("Black list settings from %s", path.c_str());
    initializeWithInfoDictionary(*settings->asDictionary());
    return path;
  }
  platform::Log::line("No settings file found: the black list is empty");
  initializeWithInfoDictionary(platform::Dictionary());
  return "";
}

void QSBlackList::initialize() {
  std::call_once(gInitialized, [] {
    if (gState.load()) return;  // installed explicitly before first use
    initializeFromSettingsFiles({administratorSettingsFilePath(), defaultSettingsFilePath()});
  });
}

bool QSBlackList::isFilenameBlacklisted(const std::string& fileName) {
  const auto state = current();
  if (state->fast.namesUsable && isAscii(fileName)) return fastNameMatch(state->fast, fileName);
  return state->fileBlacklister->evaluateWithObject(fileName);
}

bool QSBlackList::isPathSuffixBlacklisted(const std::string& pathSuffix) {
  const auto state = current();
  if (state->fast.noSuffixItems) return pathSuffix.empty();
  if (state->fast.suffixesUsable && isAscii(pathSuffix)) {
    // Compared letter by letter, ignoring ASCII case, without a lower-cased copy of the suffix.
    const auto beginsWith = [&](const std::string& prefix) {
      if (pathSuffix.size() < prefix.size()) return false;
      for (size_t i = 0; i < prefix.size(); ++i) {
        char c = pathSuffix[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != prefix[i]) return false;
      }
      return true;
    };
    bool candidate = false;
    for (const std::string& prefix : state->fast.suffixPrefixes)
      if (beginsWith(prefix)) {
        candidate = true;
        break;
      }
    if (!candidate) return false;
  }
  return state->pathSuffixBlacklister->evaluateWithObject(pathSuffix);
}

bool QSBlackList::isFilenameBlacklistedByExpression(const std::string& fileName) {
  return current()->fileBlacklister->evaluateWithObject(fileName);
}

bool QSBlackList::isPathSuffixBlacklistedByExpression(const std::string& pathSuffix) {
  return current()->pathSuffixBlacklister->evaluateWithObject(pathSuffix);
}

std::string QSBlackList::fileNamePattern() { return current()->fileNamePattern; }
std::string QSBlackList::pathSuffixPattern() { return current()->pathSuffixPattern; }
