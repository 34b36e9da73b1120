// skerrow_make_legacy: writes the backups an older backup product left on a
// disk ("QS Tidevault"), for the tests and the benchmark of the conversion.
//
//   skerrow_make_legacy [options] VOLUME
//
//   --computer NAME        the computer folder (default: this machine's name,
//                          PRETTY_HOSTNAME of /etc/machine-info or the host name)
//   --other-computer NAME  also a computer of another name, with the same
//                          users and as many files (not to be converted)
//   --user NAME=HOME       a user and the path of its home folder (repeatable;
//                          default: one user "ann" with home /home/ann)
//   --files N              files per user (default 100), spread over the
//                          categories
//   --max-versions V       each file has 1 to V versions (default 5)
//   --bytes B              a version holds up to B bytes (default 4096)
//   --categories LIST      the categories kept (comma-separated; default all
//                          of Documents, Mail, Movies, Music, Other, Pictures)
//   --number-of-versions CATEGORY=N
//                          the plan settings' "DeviceInfo.numberOfVersions" of
//                          one category (default V)
//   --exclusion PATH       the plan settings' "ExclusionFilters.directory" of
//                          every category holds PATH
//   --no-plist-every K     every K-th file has no per-file property list
//   --state S              the state the top folder marks (1 to 7; default 1)
//   --state-file KIND      absent | valid | garbage: what the state folder
//                          holds as ".vessaToQSConversionStateInfo" (default:
//                          absent for states 1 and 2, valid from state 3 on)
//   --moved F              in state 6, the share (0 to 1) of the versions
//                          already moved into the target tree (state 7: all)
//   --write-homes          also writes each file's current copy into the
//                          user's home folder, with the same bytes and time
//   --manifest FILE        writes what was made (below)
//   --seed S               seed (default 1)
//
// The layout, below VOLUME/<state folder>: <computer>/<user>/<category>/ with
// the plan settings ".VessaBackupPlanSettings.plist" (an XML property list:
// {"DeviceInfo": {"numberOfVersions": N}, "ExclusionFilters": {"directory":
// [...]}}) and, below <category>/<home path without its leading "/">, the
// files of that category: Documents/..., Pictures/<year>/..., Music/<artist>/...,
// Movies/..., Library/Mail/<box>/... and, for Other, Projects/<name>/... and
// the home folder itself.  A file "name.ext" with versions 0 (oldest) to v-1
// (newest) is kept as "name@yyyy-MM-ddTHH;mm;ss.ext" for every version but the
// newest (the time stamp, in GMT, of that version's entry), and as
// "name.ext" for the newest, unless the file was deleted (one in ten): then the
// newest is stamped too.  Its per-file property list ".Vessa name.ext.plist"
// (XML) holds one dictionary per version, oldest first, with "createDate",
// "lastModifiedDate" and "creationDate" (whole seconds); a stamped version's
// "creationDate" is its stamp's date.  Each version's modification time is
// its "lastModifiedDate", its contents a header line naming it followed by
// pseudo-random bytes, so no two versions are alike.
//
// States 3 to 7 with a valid state file hold the model as the conversion
// saves it (see Engine/conversion/QSVessaStateArchive.h): examined (3, 4), or
// with new backup identifiers and new version names "name@i.ext" in the
// order above (5 to 7).  In states 6 and 7 the moved versions lie in "qs
// skerrow.skstor - IsPerformingPathMovement/<uid>/<home-relative path>"
// under their new names; state 7 adds each backup's information list.
//
// The manifest, one line per item, fields separated by tabs:
//   user     <computer> <user> <home> <uid or ->
//   version  <computer> <user> <home-relative folder> <plain name>
//            <new index, "=" or "-"> <legacy path, relative to the state folder>
//            <size> <FNV-1a 64 of the bytes, hex> <modification time, seconds since 1970>
// A new index i means the version is converted to "name@i.ext"; "=" that it
// moves under its legacy name (a file without a property list); "-" that it
// is not converted (another computer's).
//
// The same options and seed make the same layout (apart from the random
// backup identifiers of states 5 to 7).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Date.h"
#include "platform/Process.h"
#include "platform/PropertyList.h"
#include "platform/Value.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kStateFolders[] = {
    "",
    "QS Tidevault",
    "QS Tidevault - WillPerformPathExamination",
    "QS Tidevault - DidPerformPathExamination",
    "QS Tidevault - WillPerformPathReassignment",
    "QS Tidevault - DidPerformPathReassignment",
    "QS Tidevault - WillPerformPathMovement",
    "QS Tidevault - DidPerformPathMovement",
};
constexpr const char* kTargetFolder = "qs skerrow.skstor - IsPerformingPathMovement";
constexpr const char* kCategories[] = {"Documents", "Mail", "Movies", "Music", "Other", "Pictures"};
constexpr int64_t kFirstDay = 1262304000;  // 2010-01-01 00:00:00 UTC

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "skerrow_make_legacy: %s\n", message.c_str());
  std::exit(2);
}

class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull) {}
  uint64_t next() {  // splitmix64
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  uint64_t below(uint64_t n) { return n == 0 ? 0 : next() % n; }

 private:
  uint64_t state_;
};

struct Options {
  std::string volume;
  std::string computer;
  std::optional<std::string> otherComputer;
  std::vector<std::pair<std::string, std::string>> users;
  uint64_t files = 100;
  uint64_t maxVersions = 5;
  uint64_t bytes = 4096;
  std::vector<std::string> categories{std::begin(kCategories), std::end(kCategories)};
  std::map<std::string, int64_t> numberOfVersions;
  std::optional<std::string> exclusion;
  uint64_t noPlistEvery = 0;
  int state = 1;
  std::string stateFile;
  double moved = 0;
  bool writeHomes = false;
  std::string manifest;
  uint64_t seed = 1;
};

struct Version {
  std::string legacyName;
  std::optional<int64_t> stamp;  // seconds since 1970
  int64_t modified = 0;
  int64_t created = 0;
  std::string bytes;
};

struct File {
  std::string category;
  std::string folder;  // relative to the home folder ("" for the home itself)
  std::string name;
  bool hasPlist = true;
  std::vector<Version> versions;  // oldest first
};

struct User {
  std::string computer;
  std::string name;
  std::string home;
  std::string uid;
  std::vector<File> files;
  bool convert = false;
};

uint64_t fnv1a(const std::string& bytes) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : bytes) hash = (hash ^ c) * 0x100000001b3ull;
  return hash;
}

std::string stampText(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm gmt {};
  ::gmtime_r(&t, &gmt);
  char text[32];
  std::strftime(text, sizeof text, "@%Y-%m-%dT%H;%M;%S", &gmt);
  return text;
}

// "name.ext" split at its last "."; the extension keeps its ".".
void splitName(const std::string& name, std::string* body, std::string* extension) {
  const auto dot = name.rfind('.');
  *body = dot == std::string::npos ? name : name.substr(0, dot);
  *extension = dot == std::string::npos ? "" : name.substr(dot);
}

std::string versionName(const std::string& name, uint64_t version) {
  std::string body, extension;
  splitName(name, &body, &extension);
  return body + "@" + std::to_string(version) + extension;
}

std::string stampedName(const std::string& name, int64_t stamp) {
  std::string body, extension;
  splitName(name, &body, &extension);
  return body + stampText(stamp) + extension;
}

platform::Date dateOf(int64_t seconds) { return platform::Date::dateWithTimeIntervalSince1970(static_cast<double>(seconds)); }

std::string homeRelative(const std::string& home) {
  std::string path = home;
  while (!path.empty() && path.front() == '/') path.erase(path.begin());
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

std::string join(const std::string& a, const std::string& b) {
  if (a.empty()) return b;
  if (b.empty()) return a;
  return a + "/" + b;
}

void writeBytes(const std::string& path, const std::string& bytes, int64_t modified) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) fail("cannot write " + path);
  const struct timespec times[2] = {{static_cast<time_t>(modified), 0}, {static_cast<time_t>(modified), 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void writePlist(const std::string& path, const platform::Value& value, platform::PropertyList::Format format) {
  fs::create_directories(fs::path(path).parent_path());
  const auto bytes = platform::PropertyList::toBytes(value, format);
  if (!bytes) fail("cannot serialise " + path);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes->data(), static_cast<std::streamsize>(bytes->size()));
  if (!out) fail("cannot write " + path);
}

std::string newUID(Random& random) {
  char text[40];
  const uint64_t a = random.next(), b = random.next();
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(a >> 32),
                static_cast<unsigned>((a >> 16) & 0xFFFF), static_cast<unsigned>(0x1000 | (a & 0x0FFF)),
                static_cast<unsigned>(0x8000 | (b >> 50)), static_cast<unsigned long long>(b & 0xFFFFFFFFFFFFull));
  return text;
}

// Where a category's files lie below the home folder.
std::string folderFor(const std::string& category, Random& random) {
  if (category == "Documents") return "Documents/Project " + std::to_string(random.below(8));
  if (category == "Pictures") return "Pictures/" + std::to_string(2004 + random.below(6));
  if (category == "Music") return "Music/Artist " + std::to_string(random.below(6)) + "/Album";
  if (category == "Movies") return "Movies";
  if (category == "Mail") return "Library/Mail/Box " + std::to_string(random.below(3));
  const uint64_t which = random.below(4);
  return which == 0 ? "" : "Projects/p" + std::to_string(which);
}

std::string nameFor(const std::string& category, uint64_t index, Random& random) {
  const std::string number = std::to_string(index);
  if (category == "Pictures") return "photo " + number + ".jpg";
  if (category == "Music") return "track-" + number + ".mp3";
  if (category == "Movies") return "clip_" + number + ".mov";
  if (category == "Mail") return number + ".emlx";
  if (category == "Documents") {
    switch (random.below(5)) {
      case 0: return "Notes " + number;  // no extension
      case 1: return "été-" + number + ".txt";
      case 2: return "archive-" + number + ".tar.gz";
      default: return "report-" + number + ".txt";
    }
  }
  return random.below(6) == 0 ? ".rc" + number : "data-" + number + ".dat";
}

File makeFile(const Options& options, const std::string& label, const std::string& category, uint64_t index,
              Random& random) {
  File file;
  file.category = category;
  file.folder = folderFor(category, random);
  file.name = nameFor(category, index, random);
  file.hasPlist = options.noPlistEvery == 0 || (index + 1) % options.noPlistEvery != 0;
  const uint64_t count = 1 + random.below(options.maxVersions);
  const bool deleted = random.below(10) == 0;
  int64_t when = kFirstDay + static_cast<int64_t>(random.below(3 * 365)) * 86400 + static_cast<int64_t>(random.below(86400));
  for (uint64_t k = 0; k < count; ++k) {
    Version version;
    version.modified = when;
    version.created = when - static_cast<int64_t>(random.below(3600));
    const bool newest = k + 1 == count;
    // A version is stamped with the moment it was kept, after its last change.
    if (!newest || deleted) version.stamp = when + 60 + static_cast<int64_t>(random.below(3600));
    version.legacyName = version.stamp ? stampedName(file.name, *version.stamp) : file.name;
    const uint64_t size = random.below(options.bytes + 1);
    std::string bytes = "legacy " + label + "/" + join(file.folder, file.name) + " version " + std::to_string(k) + "\n";
    while (bytes.size() < size) {
      const uint64_t r = random.next();
      for (int b = 0; b < 8 && bytes.size() < size; ++b) bytes.push_back(static_cast<char>(r >> (8 * b)));
    }
    version.bytes = std::move(bytes);
    file.versions.push_back(std::move(version));
    when += 86400 + static_cast<int64_t>(random.below(30 * 86400));
  }
  return file;
}

platform::Array perFilePlist(const File& file) {
  platform::Array entries;
  for (const Version& version : file.versions) {
    platform::Dictionary entry;
    entry.set("createDate", platform::Value(dateOf(version.created)));
    entry.set("lastModifiedDate", platform::Value(dateOf(version.modified)));
    entry.set("creationDate", platform::Value(dateOf(version.stamp ? *version.stamp : version.modified)));
    entries.push_back(platform::Value(std::move(entry)));
  }
  return entries;
}

platform::Dictionary planSettings(const Options& options, const std::string& category) {
  platform::Dictionary device;
  const auto it = options.numberOfVersions.find(category);
  device.set("numberOfVersions",
             platform::Value::integer(it != options.numberOfVersions.end() ? it->second
                                                                          : static_cast<int64_t>(options.maxVersions)));
  platform::Array directories;
  if (options.exclusion) directories.emplace_back(*options.exclusion);
  platform::Dictionary filters;
  filters.set("directory", platform::Value(std::move(directories)));
  platform::Dictionary settings;
  settings.set("DeviceInfo", platform::Value(std::move(device)));
  settings.set("ExclusionFilters", platform::Value(std::move(filters)));
  return settings;
}

// --- The state file, as the conversion saves it. ---

platform::Dictionary object(const char* className) {
  platform::Dictionary d;
  d.set("$class", platform::Value(className));
  return d;
}

platform::Value nullMarker() { return platform::Value("$null"); }

struct FolderNode {
  std::map<std::string, FolderNode> folders;
  std::map<std::string, const File*> files;
};

platform::Dictionary fileArchive(const File& file, const std::string& relativePathToFile, bool reassigned) {
  platform::Dictionary d = object("VessaFile");
  d.set("relativePathToFile", platform::Value(relativePathToFile));
  d.set("vessaPropertyList", file.hasPlist ? platform::Value(perFilePlist(file)) : nullMarker());
  platform::Array versions, stamps, modified, newNames;
  std::vector<const Version*> order;
  for (const Version& v : file.versions) order.push_back(&v);
  // Before reassignment the versions are in listing order (by name), after it oldest first.
  if (!reassigned || !file.hasPlist)
    std::sort(order.begin(), order.end(), [](const Version* a, const Version* b) { return a->legacyName < b->legacyName; });
  for (size_t i = 0; i < order.size(); ++i) {
    versions.emplace_back(order[i]->legacyName);
    stamps.push_back(order[i]->stamp ? platform::Value(dateOf(*order[i]->stamp)) : nullMarker());
    const bool matched = reassigned && file.hasPlist && (order[i]->stamp.has_value() || i + 1 == order.size());
    const bool lastUnmatched = reassigned && file.hasPlist && i + 1 == order.size() && order[i]->stamp.has_value();
    modified.push_back(matched && !lastUnmatched ? platform::Value(dateOf(order[i]->modified)) : nullMarker());
    if (reassigned && file.hasPlist) newNames.emplace_back(versionName(file.name, i));
  }
  d.set("versionsOfFile", platform::Value(std::move(versions)));
  d.set("timeStampsOfVersionsOfFile", platform::Value(std::move(stamps)));
  d.set("lastModifiedDatesOfVersionsOfFile", platform::Value(std::move(modified)));
  d.set("versionsOfFileForQSBackup", platform::Value(std::move(newNames)));
  return d;
}

platform::Dictionary treeArchive(const FolderNode& node, const std::string& relative, bool reassigned) {
  platform::Dictionary entries;
  for (const auto& [name, child] : node.folders) {
    platform::Dictionary folder = object("VessaFolder");
    folder.set("fileObjects", platform::Value(treeArchive(child, join(relative, name), reassigned)));
    entries.set(name, platform::Value(std::move(folder)));
  }
  for (const auto& [name, file] : node.files) entries.set(name, platform::Value(fileArchive(*file, relative, reassigned)));
  return entries;
}

platform::Dictionary infoList(const User& user, const Options& options, const std::vector<std::string>& categories) {
  platform::Dictionary info;
  info.set("backup-uid", platform::Value(user.uid));
  info.set("source-format", platform::Value("hfs+"));
  info.set("home", platform::Value(user.home));
  info.set("long-name", platform::Value(user.name));
  info.set("machine", platform::Value(user.computer));
  info.set("completion-date", platform::Value(platform::Date::now()));
  info.set("period", platform::Value::real(3600.0));
  info.set("scheduled", platform::Value::boolean(true));
  info.set("short-name", platform::Value(user.name));
  info.set("version-depth", platform::Value::unsignedInteger(options.maxVersions - 1));
  platform::Array managed;
  for (const char* identifier : {"Pictures", "Music", "Movies", "Mail", "Documents", "Other"}) {
    platform::Dictionary category;
    category.set("identifier", platform::Value(identifier));
    category.set("user-info", platform::Value(platform::Dictionary()));
    category.set("scheduled",
                 platform::Value::boolean(std::find(categories.begin(), categories.end(), identifier) != categories.end()));
    managed.push_back(platform::Value(std::move(category)));
  }
  info.set("managed-categories", platform::Value(std::move(managed)));
  return info;
}

platform::Dictionary userArchive(const User& user, const Options& options, bool reassigned) {
  platform::Dictionary d = object("VessaUserBackup");
  const std::string userPath = user.computer + "/" + user.name;
  d.set("computerName", platform::Value(user.computer));
  d.set("userName", platform::Value(user.name));
  d.set("relativePathToUserBackup", platform::Value(userPath));
  platform::Array categories;
  std::vector<std::string> kept;
  for (const std::string& category : options.categories) {
    kept.push_back(category);
    const std::string relative = join(userPath + "/" + category, homeRelative(user.home));
    FolderNode root;
    for (const File& file : user.files) {
      if (file.category != category) continue;
      FolderNode* node = &root;
      std::stringstream parts(file.folder);
      for (std::string part; std::getline(parts, part, '/');)
        if (!part.empty()) node = &node->folders[part];
      node->files[file.name] = &file;
    }
    platform::Dictionary c = object("VessaCategoryBackup");
    c.set("category", platform::Value(category));
    // Paths of files are relative to the state folder: the category's own path plus their folder.
    platform::Dictionary files;
    for (const auto& [name, child] : root.folders) {
      platform::Dictionary folder = object("VessaFolder");
      folder.set("fileObjects", platform::Value(treeArchive(child, join(relative, name), reassigned)));
      files.set(name, platform::Value(std::move(folder)));
    }
    for (const auto& [name, file] : root.files) files.set(name, platform::Value(fileArchive(*file, relative, reassigned)));
    c.set("categoryFiles", platform::Value(std::move(files)));
    c.set("vessaBackupPlanSettingsPropertyList", platform::Value(planSettings(options, category)));
    c.set("relativePathToCategoryBackup", platform::Value(relative));
    categories.push_back(platform::Value(std::move(c)));
  }
  d.set("backedUpCategories", platform::Value(std::move(categories)));
  d.set("zeroBasedNumberOfBackupVersionsToKeep", platform::Value::integer(0));
  d.set("exclusionFilterDirectory", nullMarker());
  d.set("assignedUUIDForQSBackup", reassigned ? platform::Value(user.uid) : nullMarker());
  d.set("plistDataForQSBackup", reassigned ? platform::Value(infoList(user, options, kept)) : nullMarker());
  return d;
}

platform::Value stateArchive(const std::vector<User>& users, const Options& options, bool reassigned) {
  std::vector<std::string> computers = {options.computer};
  if (options.otherComputer) computers.push_back(*options.otherComputer);
  platform::Array root;
  for (const std::string& computer : computers) {
    const bool convert = computer == options.computer;
    platform::Dictionary c = object("VessaComputerBackup");
    c.set("computerName", platform::Value(computer));
    platform::Array list;
    if (convert)
      for (const User& user : users)
        if (user.computer == computer) list.push_back(platform::Value(userArchive(user, options, reassigned)));
    c.set("backedUpUsers", platform::Value(std::move(list)));
    c.set("computerNeedsConversion", platform::Value::boolean(convert));
    root.push_back(platform::Value(std::move(c)));
  }
  platform::Dictionary archive;
  archive.set("$archiver", platform::Value("QSVessaConversion"));
  archive.set("$version", platform::Value::integer(1));
  archive.set("root", platform::Value(std::move(root)));
  return platform::Value(std::move(archive));
}

Options parse(int argc, char** argv) {
  Options o;
  auto value = [&](int& i) -> std::string {
    if (i + 1 >= argc) fail(std::string(argv[i]) + " needs a value");
    return argv[++i];
  };
  auto number = [&](const std::string& text) -> uint64_t {
    char* end = nullptr;
    const unsigned long long n = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end) fail("not a number: " + text);
    return n;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--computer") o.computer = value(i);
    else if (a == "--other-computer") o.otherComputer = value(i);
    else if (a == "--user") {
      const std::string given = value(i);
      const auto eq = given.find('=');
      if (eq == std::string::npos || eq == 0 || eq + 1 == given.size()) fail("say --user NAME=HOME");
      o.users.emplace_back(given.substr(0, eq), given.substr(eq + 1));
    } else if (a == "--files") o.files = number(value(i));
    else if (a == "--max-versions") o.maxVersions = std::max<uint64_t>(1, number(value(i)));
    else if (a == "--bytes") o.bytes = number(value(i));
    else if (a == "--categories") {
      o.categories.clear();
      std::stringstream list(value(i));
      for (std::string c; std::getline(list, c, ',');) {
        if (std::find(std::begin(kCategories), std::end(kCategories), c) == std::end(kCategories))
          fail("no category " + c);
        o.categories.push_back(c);
      }
    } else if (a == "--number-of-versions") {
      const std::string given = value(i);
      const auto eq = given.find('=');
      if (eq == std::string::npos) fail("say --number-of-versions CATEGORY=N");
      o.numberOfVersions[given.substr(0, eq)] = static_cast<int64_t>(number(given.substr(eq + 1)));
    } else if (a == "--exclusion") o.exclusion = value(i);
    else if (a == "--no-plist-every") o.noPlistEvery = number(value(i));
    else if (a == "--state") o.state = static_cast<int>(number(value(i)));
    else if (a == "--state-file") o.stateFile = value(i);
    else if (a == "--moved") o.moved = std::atof(value(i).c_str());
    else if (a == "--write-homes") o.writeHomes = true;
    else if (a == "--manifest") o.manifest = value(i);
    else if (a == "--seed") o.seed = number(value(i));
    else if (!a.empty() && a[0] == '-') fail("unknown option " + a);
    else if (o.volume.empty()) o.volume = a;
    else fail("one volume only");
  }
  if (o.volume.empty()) fail("usage: skerrow_make_legacy [options] VOLUME");
  if (o.state < 1 || o.state > 7) fail("--state is 1 to 7");
  if (o.stateFile.empty()) o.stateFile = o.state >= 3 ? "valid" : "absent";
  if (o.stateFile != "absent" && o.stateFile != "valid" && o.stateFile != "garbage") fail("--state-file absent|valid|garbage");
  if (o.computer.empty()) o.computer = platform::Process::machineName();
  if (o.users.empty()) o.users.emplace_back("ann", "/home/ann");
  if (o.state == 7) o.moved = 1;
  if (o.state != 6 && o.state != 7) o.moved = 0;
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  Random random(options.seed);
  Random uids(std::random_device{}());
  Random movedChoice(options.seed ^ 0x6d6f766564ull);
  std::vector<User> users;
  std::vector<std::string> computers = {options.computer};
  if (options.otherComputer) computers.push_back(*options.otherComputer);
  for (const std::string& computer : computers) {
    for (const auto& [name, home] : options.users) {
      User user;
      user.computer = computer;
      user.name = name;
      user.home = home;
      user.convert = computer == options.computer;
      if (user.convert && options.state >= 5) user.uid = newUID(uids);
      for (uint64_t i = 0; i < options.files; ++i) {
        const std::string& category = options.categories[random.below(options.categories.size())];
        user.files.push_back(makeFile(options, computer + "/" + name, category, i, random));
      }
      users.push_back(std::move(user));
    }
  }

  const std::string stateFolder = options.volume + "/" + kStateFolders[options.state];
  fs::create_directories(stateFolder);
  std::ofstream manifest;
  if (!options.manifest.empty()) {
    manifest.open(options.manifest, std::ios::trunc);
    if (!manifest) fail("cannot write " + options.manifest);
  }
  uint64_t totalVersions = 0, movedVersions = 0;
  for (const User& user : users) {
    const std::string userFolder = stateFolder + "/" + user.computer + "/" + user.name;
    if (manifest.is_open())
      manifest << "user\t" << user.computer << "\t" << user.name << "\t" << user.home << "\t"
               << (user.uid.empty() ? "-" : user.uid) << "\n";
    for (const std::string& category : options.categories)
      writePlist(userFolder + "/" + category + "/.VessaBackupPlanSettings.plist",
                 platform::Value(planSettings(options, category)), platform::PropertyList::Format::XML);
    for (const File& file : user.files) {
      const std::string relative = join(user.computer + "/" + user.name + "/" + file.category,
                                        join(homeRelative(user.home), file.folder));
      const std::string legacyFolder = stateFolder + "/" + relative;
      fs::create_directories(legacyFolder);
      if (file.hasPlist)
        writePlist(legacyFolder + "/.Vessa " + file.name + ".plist", platform::Value(perFilePlist(file)),
                   platform::PropertyList::Format::XML);
      for (size_t k = 0; k < file.versions.size(); ++k) {
        const Version& version = file.versions[k];
        ++totalVersions;
        const bool converted = user.convert && file.hasPlist;
        // The first share of each user's versions is already moved in state 6.
        const bool moved = converted && options.moved > 0 &&
                           static_cast<double>(movedChoice.below(1000)) < options.moved * 1000.0;
        std::string where = legacyFolder + "/" + version.legacyName;
        if (moved) {
          where = options.volume + "/" + kTargetFolder + "/" + user.uid + "/" + join(file.folder, versionName(file.name, k));
          ++movedVersions;
        }
        writeBytes(where, version.bytes, version.modified);
        if (manifest.is_open()) {
          char hash[20];
          std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(fnv1a(version.bytes)));
          manifest << "version\t" << user.computer << "\t" << user.name << "\t" << file.folder << "\t" << file.name
                   << "\t" << (converted ? std::to_string(k) : user.convert ? std::string("=") : std::string("-")) << "\t"
                   << join(relative, version.legacyName) << "\t" << version.bytes.size() << "\t" << hash << "\t"
                   << version.modified << "\n";
        }
      }
      const Version& newest = file.versions.back();
      if (options.writeHomes && user.convert && !newest.stamp)
        writeBytes(user.home + "/" + join(file.folder, file.name), newest.bytes, newest.modified);
    }
    if (options.state == 7 && user.convert)
      writePlist(options.volume + "/" + kTargetFolder + "/" + user.uid + "/.com.qsc.backupinfo",
                 platform::Value(infoList(user, options, options.categories)), platform::PropertyList::Format::XML);
  }
  if (options.state >= 6)
    for (const User& user : users)
      if (user.convert) fs::create_directories(options.volume + "/" + kTargetFolder + "/" + user.uid);

  const std::string stateFile = stateFolder + "/.vessaToQSConversionStateInfo";
  if (options.stateFile == "garbage") {
    std::ofstream(stateFile, std::ios::binary) << "bplist00 this is not an archive";
  } else if (options.stateFile == "valid") {
    writePlist(stateFile, stateArchive(users, options, options.state >= 5), platform::PropertyList::Format::Binary);
  }
  std::printf("%s: %zu users, %llu versions (%llu moved) in \"%s\"\n", options.volume.c_str(), users.size(),
              static_cast<unsigned long long>(totalVersions), static_cast<unsigned long long>(movedVersions),
              kStateFolders[options.state]);
  return 0;
}
