#include "Engine/QSBlackList.h"

#include <atomic>
#include <mutex>
#include <vector>

#include "Engine/CollectionUtils.h"
#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/PropertyList.h"

namespace {

struct State {
  std::string fileNamePattern;
  std::string pathSuffixPattern;
  std::shared_ptr<const platform::RegexPredicate> fileBlacklister;
  std::shared_ptr<const platform::RegexPredicate> pathSuffixBlacklister;
};

std::atomic<std::shared_ptr<const State>> gState;
std::once_flag gInitialized;

std::string parenthesize(const std::string& item) { return "(" + item + ")"; }

// The items of one array of the list; items that do not compile on their own are left out.
std::vector<std::string> itemsOf(const platform::Dictionary* list, const char* key) {
  std::vector<std::string> items;
  if (!list) return items;
  const platform::Value* array = list->find(key);
  if (!array || !array->isArray()) return items;
  for (const platform::Value& v : *array->asArray()) {
    if (!v.isString()) continue;
    std::string error;
    if (!platform::RegexPredicate::isValidExpression(parenthesize(*v.asString()), &error)) {
      platform::Log::format("Black list item %s of %s does not compile and is left out: %s", v.asString()->c_str(), key,
                            error.c_str());
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
  platform::Log::line("Black list:");
  platform::Log::format("file names: %s", state->fileNamePattern.c_str());
  platform::Log::format("path suffixes: %s", state->pathSuffixPattern.c_str());
  platform::Log::line("");
  gState.store(std::move(state));
}

std::string QSBlackList::settingsFilePath() {
  return platform::Process::executableDirectory() + "/../share/skerrow/Info.plist";
}

void QSBlackList::initialize() {
  std::call_once(gInitialized, [] {
    if (gState.load()) return;  // installed explicitly before first use
    const auto settings = platform::PropertyList::readFile(settingsFilePath());
    if (!settings || !settings->isDictionary())
      platform::Log::format("No settings at %s: the black list is empty", settingsFilePath().c_str());
    initializeWithInfoDictionary(settings && settings->isDictionary() ? *settings->asDictionary()
                                                                      : platform::Dictionary());
  });
}

bool QSBlackList::isFilenameBlacklisted(const std::string& fileName) {
  return current()->fileBlacklister->evaluateWithObject(fileName);
}

bool QSBlackList::isPathSuffixBlacklisted(const std::string& pathSuffix) {
  return current()->pathSuffixBlacklister->evaluateWithObject(pathSuffix);
}

std::string QSBlackList::fileNamePattern() { return current()->fileNamePattern; }
std::string QSBlackList::pathSuffixPattern() { return current()->pathSuffixPattern; }
