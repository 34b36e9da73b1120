// skerrow_make_home: writes a deterministic synthetic home folder for the
// tests and the benchmarks.
//
//   skerrow_make_home [-n FILES] [-b BYTES] [-s SEED] [-q] TARGET_DIR
//
//   -n FILES   regular files to make (default 100000); symbolic links and
//              folders come on top of that
//   -b BYTES   total size of those files (default 1.5G); K, M, G and T are
//              powers of 1024 and a fraction is allowed ("1.5G", "20M")
//   -s SEED    seed (default 1)
//   -q         print nothing but errors and warnings
//   TARGET_DIR is created (with its parents); if it exists it must be an
//              empty folder
//
// The same seed with the same FILES and BYTES gives the same tree on every
// machine: names, sizes, contents, modes and modification times.  Everything
// random comes from our own xoshiro256** generator, and the few logarithms
// and exponentials from our own series made of +, -, * and / only: <random>'s
// distributions and libm differ between libraries, these do not.
//
// What it looks like: a Linux desktop home with Pictures/<year>/<event>,
// Music/<artist>/<album>, Movies, Documents (nested project folders),
// Downloads, Desktop, Library/Mail (Apple-style mailboxes full of .emlx
// messages), Library/Preferences (XML property lists, among them
// com.apple.mail.plist), Library/Application Support, .config/<app>,
// .cache (many small files), .ssh, src (source projects nested several
// levels, with their .git objects), a few dotfiles and files in the home
// folder itself, some empty folders, and about one relative symbolic link per
// thousand files (to files, to folders, and one that dangles).  Names mix
// case, spaces, UTF-8 ("Fotos Größe", "été") and versioned-looking names
// ("photo@2008.jpg"); within a folder no two names differ only by case, as the
// backup disks compare names without case.
//
// Sizes, by bytes: a quarter in a few 50-200 MiB files (Movies, Documents;
// only when BYTES is at least 200 MiB, otherwise that share goes to the
// medium files), 45% in 100 KiB-5 MiB files (log-uniform), 30% in small files
// (2% of them empty, 70% below 4 KiB, all below 100 KiB).  File sizes are then
// nudged so that the total is BYTES exactly (when FILES and BYTES allow it).
// Every non-empty file begins with a header line naming the seed and the
// file's number, so no two files have the same contents.  Source, config,
// mail, property-list and note files hold text; the rest is pseudo-random.
// Modes are 0644, 0600 for private files, 0755 for a few scripts in src.
// Modification times (nanoseconds included) lie in the five years before
// 2024-01-01; a folder's time is that of its newest entry.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

constexpr uint64_t KiB = 1024;
constexpr uint64_t MiB = 1024 * KiB;
constexpr uint64_t GiB = 1024 * MiB;

constexpr uint64_t kLargeMin = 50 * MiB;
constexpr uint64_t kLargeMax = 200 * MiB;
constexpr uint64_t kLargeFloor = 200 * MiB;  // below this total there are no large files
constexpr uint64_t kMediumMin = 100 * KiB;
constexpr uint64_t kMediumMax = 5 * MiB;
constexpr uint64_t kTinyMin = 48;
constexpr uint64_t kTinyEnd = 4 * KiB;     // tiny files are below this
constexpr uint64_t kSmallEnd = 100 * KiB;  // every small file is below this

constexpr int64_t kT0 = 1546300800;  // 2019-01-01T00:00:00Z
constexpr int64_t kT1 = 1704067200;  // 2024-01-01T00:00:00Z
constexpr int64_t kDay = 86400;

// ---------------------------------------------------------------------------
// Random numbers

uint64_t splitmix(uint64_t& x) {
  uint64_t z = (x += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

uint64_t mix(uint64_t a, uint64_t b) {
  uint64_t x = a ^ (b * 0xD1B54A32D192ED03ull);
  splitmix(x);
  return splitmix(x);
}

class Rng {
 public:
  explicit Rng(uint64_t seed) {
    for (uint64_t& w : s_) w = splitmix(seed);
  }

  uint64_t next() {  // xoshiro256**
    const uint64_t result = rotl(s_[1] * 5, 7) * 9;
    const uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = rotl(s_[3], 45);
    return result;
  }

  // Uniform in [0, n), n > 0, without modulo bias.
  uint64_t below(uint64_t n) {
    const uint64_t reject = (0 - n) % n;  // 2^64 mod n
    for (;;) {
      const uint64_t v = next();
      if (v >= reject) return v % n;
    }
  }
  int range(int lo, int hi) { return lo + int(below(uint64_t(hi - lo) + 1)); }
  double unit() { return double(next() >> 11) * 0x1.0p-53; }
  bool chance(double p) { return unit() < p; }

  template <class T, size_t N>
  const T& pick(const T (&a)[N]) {
    return a[below(N)];
  }

 private:
  static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
  uint64_t s_[4];
};

// exp and log from basic operations only, so they round the same everywhere.
constexpr double kLn2 = 0.69314718055994530942;

// A product rounded to double before it is added to anything: compilers may
// otherwise fuse a*b+c into one FMA on machines that have it (GCC does so even
// in ISO mode), and the sizes would then differ by a byte here and there.
double rounded(double x) {
  volatile double v = x;
  return v;
}

double detExp(double x) {
  const double kf = x / kLn2;
  const int k = int(kf >= 0 ? kf + 0.5 : kf - 0.5);
  const double r = x - rounded(double(k) * kLn2);  // |r| <= ln2/2
  double term = 1.0, sum = 1.0;
  for (int i = 1; i <= 22; ++i) {
    term = term * r / double(i);
    sum += term;
  }
  return std::ldexp(sum, k);
}

double detLog(double x) {  // x > 0
  int e = 0;
  const double m = std::frexp(x, &e);  // x = m * 2^e, m in [0.5, 1)
  const double z = (m - 1.0) / (m + 1.0);
  const double z2 = z * z;
  double term = z, sum = 0.0;
  for (int i = 1; i <= 61; i += 2) {
    sum += term / double(i);
    term *= z2;
  }
  return rounded(2.0 * sum) + rounded(double(e) * kLn2);
}

// Log-uniform in [lo, hi).
uint64_t logUniform(Rng& r, uint64_t lo, uint64_t hi) {
  const double v = double(lo) * detExp(r.unit() * detLog(double(hi) / double(lo)));
  return std::clamp(uint64_t(v), lo, hi - 1);
}

// Mean of the log-uniform distribution on [lo, hi].
double logUniformMean(double lo, double hi) { return (hi - lo) / detLog(hi / lo); }

// ---------------------------------------------------------------------------
// Small helpers

__attribute__((format(printf, 1, 2))) std::string format(const char* fmt, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, fmt);
  const int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n < 0) return {};
  if (size_t(n) < sizeof buf) return std::string(buf, size_t(n));
  std::string s(size_t(n), '\0');
  va_start(ap, fmt);
  std::vsnprintf(s.data(), s.size() + 1, fmt, ap);
  va_end(ap);
  return s;
}

template <class... A>
std::string cat(const A&... a) {
  std::string s;
  (s.append(std::string_view(a)), ...);
  return s;
}

void appendCap(std::string& o, std::string_view w) {
  if (!w.empty() && w[0] >= 'a' && w[0] <= 'z') {
    o += char(w[0] - 'a' + 'A');
    o.append(w.substr(1));
  } else {
    o.append(w);
  }
}

std::string capitalized(std::string_view w) {
  std::string s;
  appendCap(s, w);
  return s;
}

std::string hex(Rng& r, int n, bool upper = false) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string s;
  s.reserve(size_t(n));
  uint64_t bits = 0;
  for (int i = 0; i < n; ++i) {
    if (i % 16 == 0) bits = r.next();
    s += digits[bits & 15];
    bits >>= 4;
  }
  return s;
}

std::string alnum(Rng& r, int n) {
  static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::string s;
  for (int i = 0; i < n; ++i) s += kChars[r.below(36)];
  return s;
}

std::string uuid(Rng& r) {
  return cat(hex(r, 8, true), "-", hex(r, 4, true), "-", hex(r, 4, true), "-", hex(r, 4, true), "-",
             hex(r, 12, true));
}

// Civil dates (proleptic Gregorian, UTC).
int64_t daysFromCivil(int y, int m, int d) {
  y -= m <= 2;
  const int era = (y >= 0 ? y : y - 399) / 400;
  const int yoe = y - era * 400;
  const int doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return int64_t(era) * 146097 + doe - 719468;
}

struct Civil {
  int y, m, d, hh, mm, ss, wday;  // wday: 0 = Sunday
};

Civil civil(int64_t t) {
  const int64_t days = (t >= 0 ? t : t - kDay + 1) / kDay;
  const int64_t secs = t - days * kDay;
  const int64_t z = days + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int d = int(doy - (153 * mp + 2) / 5 + 1);
  const int m = int(mp < 10 ? mp + 3 : mp - 9);
  const int y = int(yoe + era * 400 + (m <= 2));
  return {y, m, d, int(secs / 3600), int(secs / 60 % 60), int(secs % 60), int((days % 7 + 11) % 7)};
}

int64_t epochOf(int y, int m, int d) { return daysFromCivil(y, m, d) * kDay; }

std::string isoDate(int64_t t) {
  const Civil c = civil(t);
  return format("%04d-%02d-%02dT%02d:%02d:%02dZ", c.y, c.m, c.d, c.hh, c.mm, c.ss);
}

std::string mailDate(int64_t t) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const Civil c = civil(t);
  return format("%s, %d %s %04d %02d:%02d:%02d +0000", kDays[c.wday], c.d, kMonths[c.m - 1], c.y, c.hh, c.mm,
                c.ss);
}

std::string screenshotStamp(int64_t t) {
  const Civil c = civil(t);
  return format("%04d-%02d-%02d at %02d.%02d.%02d", c.y, c.m, c.d, c.hh, c.mm, c.ss);
}

// The name as a case-insensitive disk compares it: ASCII, Latin-1 and Cyrillic
// letters folded, which covers every name made here.
std::string foldName(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    const unsigned char d = i + 1 < s.size() ? static_cast<unsigned char>(s[i + 1]) : 0;
    if (c >= 'A' && c <= 'Z') {
      out += char(c + 32);
    } else if (c == 0xC3 && d >= 0x80 && d <= 0x9E && d != 0x97) {  // À..Þ
      out += char(c);
      out += char(d + 0x20);
      ++i;
    } else if (c == 0xD0 && d >= 0x80 && d <= 0xAF) {  // Ѐ..Я
      if (d < 0x90) {
        out += char(0xD1);
        out += char(d + 0x10);
      } else if (d < 0xA0) {
        out += char(0xD0);
        out += char(d + 0x20);
      } else {
        out += char(0xD1);
        out += char(d - 0x20);
      }
      ++i;
    } else {
      out += char(c);
    }
  }
  return out;
}

// ---------------------------------------------------------------------------
// Word lists

constexpr std::string_view kWords[] = {
    "the",     "of",      "and",     "a",       "to",      "in",      "is",      "you",     "that",    "it",
    "was",     "for",     "on",      "are",     "as",      "with",    "they",    "at",      "be",      "this",
    "have",    "from",    "or",      "one",     "had",     "by",      "word",    "but",     "not",     "what",
    "all",     "were",    "we",      "when",    "your",    "can",     "said",    "there",   "use",     "each",
    "which",   "she",     "do",      "how",     "their",   "if",      "will",    "up",      "other",   "about",
    "out",     "many",    "then",    "them",    "these",   "so",      "some",    "her",     "would",   "make",
    "like",    "him",     "into",    "time",    "has",     "look",    "two",     "more",    "write",   "go",
    "see",     "number",  "no",      "way",     "could",   "people",  "my",      "than",    "first",   "water",
    "been",    "call",    "who",     "its",     "now",     "find",    "long",    "down",    "day",     "did",
    "get",     "come",    "made",    "may",     "part",    "backup",  "folder",  "disk",    "photo",   "summer",
    "garden",  "meeting", "report",  "budget",  "plan",    "draft",   "review",  "travel",  "invoice", "project",
    "weekend", "family",  "recipe",  "coffee",  "café",    "naïve",   "Größe",   "été",     "Zürich",  "façade",
    "déjà",    "vu",      "train",   "river",   "window",  "letter",  "morning", "evening", "school",  "house",
    "music",   "city",    "light",   "winter",  "spring",  "autumn",  "friend",  "question", "answer", "paper",
};

constexpr std::string_view kIdents[] = {
    "buffer", "count",   "index",   "node",    "list",    "map",     "value",   "key",     "size",    "offset",
    "length", "path",    "name",    "file",    "stream",  "reader",  "writer",  "parser",  "token",   "state",
    "config", "options", "result",  "error",   "handle",  "context", "request", "response", "client", "server",
    "socket", "queue",   "cache",   "entry",   "block",   "chunk",   "header",  "record",  "table",   "tree",
    "item",   "task",    "worker",  "thread",  "lock",    "event",   "timer",   "signal",  "image",   "pixel",
    "frame",  "audio",   "sample",  "vector",  "matrix",  "point",   "shape",   "color",   "style",   "layout",
    "widget", "window",  "view",    "model",   "store",   "query",   "cursor",  "page",    "hash",    "digest",
    "crc",    "encode",  "decode",  "compress", "flush",  "sync",    "open",    "close",   "read",    "write",
    "seek",   "init",    "free",    "alloc",   "copy",    "move",    "swap",    "sort",    "find",    "insert",
    "remove", "update",  "apply",   "load",    "save",    "parse",   "format",  "print",   "log",     "check",
};

constexpr std::string_view kModules[] = {
    "core",   "net",      "util",     "io",     "parser",   "render",      "audio",  "ui",
    "storage", "crypto",  "http",     "json",   "cli",      "internal",    "platform", "common",
    "bench",  "tools",    "vendor",   "third_party", "Engine", "Model",    "Views",  "Controllers",
    "Resources", "legacy", "experimental", "v2", "proto",   "Sync",        "db",     "Plugins",
};

constexpr std::string_view kProjects[] = {
    "skerrow-playground", "dotfiles",     "website",       "Rust Experiments", "advent-of-code",
    "photo-sorter",       "tiny-http",    "Kernel Notes",  "émulateur-6502",   "libfoo",
    "raytracer",          "home-automation", "Thesis",     "scratch",          "Mandelbrot",
    "old-stuff",          "GameOfLife",   "blog",          "mail-tools",       "keyboard-firmware",
    "ÜberCalc",           "backup-scripts", "notes-app",   "sudoku-solver",    "chess-engine",
};

constexpr std::string_view kEvents[] = {
    "Summer Holiday", "Birthday Party", "Christmas",   "Fotos Größe",     "été",          "Weekend in Paris",
    "Hiking Trip",    "Garden",         "Ski Trip",    "Wedding",         "Family Visit", "Beach Day",
    "New Year's Eve", "Zoo",            "Concert",     "Москва",          "日本旅行",     "Café Terrace",
    "Ölfarben",       "School Play",    "Road Trip",   "Camping",         "Graduation",   "Cats",
    "Renovation",     "Märchenwald",    "Printemps",   "Marathon",        "Snow Day",     "Lake District",
};

constexpr std::string_view kArtists[] = {
    "Björk",     "Sigur Rós",    "Ólafur Arnalds", "Motörhead", "Café Tacvba", "Mötley Crüe",
    "Zoë Keating", "Los Lobos",  "Daft Punk",      "Yann Tiersen", "Nils Frahm", "Ludovico Einaudi",
    "Hania Rani", "Aurora",      "Stromae",        "Rammstein",
};

constexpr std::string_view kAdjectives[] = {
    "Velvet", "Midnight", "Electric", "Silent", "Golden", "Broken", "Crystal", "Wild",
    "Neon",   "Lonely",   "Paper",    "Iron",   "Blue",   "Northern", "Hollow", "Quiet",
};

constexpr std::string_view kNouns[] = {
    "Foxes", "Owls",   "Rivers", "Engines", "Hearts",   "Lights",  "Wolves",   "Kings",
    "Machines", "Ghosts", "Echoes", "Tigers", "Drifters", "Sparrows", "Satellites", "Harbours",
};

constexpr std::string_view kMovieTitles[] = {
    "Holiday 2019",   "Family Video",     "Été à Nice",       "Wedding Full Length", "Drone Footage 4K",
    "Birthday",       "Graduation",       "Kids Playing",     "Sunset Timelapse",    "Concert Recording",
    "Weihnachten",    "Tutorial",         "Presentation Rehearsal", "Road Trip Cut", "Garden Timelapse",
};

constexpr std::string_view kDocTop[] = {
    "Projects", "Work",     "Taxes",   "School",   "Recipes",  "Manuals", "Personal Letters", "Scans",
    "Finances", "Travel",   "Health",  "Résumés",  "Notes",    "Archive 2019", "Contracts", "Kids",
    "Car",      "House",
};

constexpr std::string_view kDocSub[] = {
    "Drafts",    "Reports",  "Final",    "Old",       "Data",     "Meeting Notes", "Invoices", "Receipts",
    "Presentations", "Images", "2019",   "2020",      "2021",     "2022",          "2023",     "Q1",
    "Q2",        "Q3",       "Q4",       "Client A",  "Client B", "Misc",          "Research", "Sources",
    "Exports",   "Backups",  "Versions", "Übersicht", "Entwürfe", "Brouillons",    "Alpha",    "Orion",
};

constexpr std::string_view kDocBases[] = {
    "Report",    "Budget",   "Invoice",   "Letter",    "Notes",      "Summary",  "Minutes",   "Proposal",
    "Contract",  "Receipt",  "Plan",      "Agenda",    "Presentation", "Draft",  "Résumé",    "CV",
    "Tax Return", "Statement", "Checklist", "Itinerary", "Manual",   "Recipe",   "Scan",      "Thesis",
    "Chapter",   "Lettre",
};

constexpr std::string_view kDocVariants[] = {
    "",      "",       "",       " v2",    " v3",   " final", " (final)", " FINAL", " 2019", " 2020",
    " 2021", " 2022",  " 2023",  " draft", " - Copy", "_old", " March",  "@2008",  "@3",    " signed",
};

constexpr std::string_view kConfigApps[] = {
    "gtk-3.0", "gtk-4.0", "Code",    "autostart", "pulse",   "fish",     "nvim",    "htop",
    "git",     "mpv",     "libreoffice", "dconf", "systemd", "fontconfig", "ibus",  "evolution",
    "vlc",     "Slack",   "discord", "gh",        "rclone",  "Thunar",   "xfce4",   "kdeconnect",
    "Element", "syncthing", "spotify", "obs-studio", "Nextcloud", "JetBrains",
};

constexpr std::string_view kConfigSubs[] = {
    "User",     "lua",      "plugins",  "profiles", "themes",   "extensions", "storage", "sessions",
    "globalStorage", "snippets", "colors", "keymaps", "conf.d", "functions",  "completions", "user",
    "backups",  "Local Storage", "workspaceStorage", "default",
};

constexpr std::string_view kVendors[] = {
    "apple",  "google",  "microsoft", "mozilla", "jetbrains", "spotify", "videolan", "skype",   "adobe",
    "dropbox", "github", "slack",     "zoom",    "valvesoftware", "barebones", "panic", "omnigroup",
    "sublimetext", "postgresapp", "example",
};

constexpr std::string_view kPrefApps[] = {
    "finder",  "dock",     "Safari",   "iCal",     "AddressBook", "screensaver", "TextEdit", "Terminal",
    "Preview", "loginwindow", "systempreferences", "iTunes", "photos", "Notes", "spaces", "menuextra.clock",
    "Editor",  "Player",   "Helper",   "Sync",     "Updater",  "Agent",   "desktop", "Chrome",
};

constexpr std::string_view kAppNames[] = {
    "Firefox",  "Code",      "Slack",      "AddressBook", "MobileSync", "CrashReporter", "Signal",
    "Thunderbird", "Steam",  "Spotify",    "discord",     "com.apple.sharedfilelist", "Zotero", "Obsidian",
    "VirtualBox", "Skerrow Test Data",
};

constexpr std::string_view kAppSubs[] = {
    "Profiles", "User",    "globalStorage", "IndexedDB", "Cache", "Backup", "Sources", "databases",
    "logs",     "storage", "extensions",    "Local Storage", "leveldb", "blob_storage",
};

constexpr std::string_view kMailboxes[] = {
    "Sent Messages", "Drafts", "Archive", "Junk", "Deleted Messages", "Reçus", "Projects", "Family",
    "Receipts", "Newsletters", "Travel", "Work", "Été 2021", "Notifications", "Bills", "Old Mail",
};

constexpr std::string_view kFirst[] = {
    "Anna", "Ben",  "Chloé", "David", "Elena", "François", "Greta", "Hiro", "Ines", "Jonas",
    "Kim",  "Lena", "Marta", "Noah",  "Olga",  "Pierre",   "Quinn", "Rosa", "Søren", "Tomás",
};

constexpr std::string_view kLast[] = {
    "Smith", "Müller", "Dubois", "García", "Rossi", "Nowak", "Jensen", "Tanaka", "Silva", "Novák",
    "Brown", "Petit",  "Weber",  "Lopez",  "Ivanova", "Larsen", "Kowalski", "Martin", "Young", "Øster",
};

constexpr std::string_view kDomains[] = {
    "example.org", "example.com", "mail.example.net", "uni-example.de", "example.fr", "company.example",
};

constexpr std::string_view kCacheApps[] = {
    "yarn", "npm", "gstreamer-1.0", "tracker3", "evolution", "vlc", "gnome-software", "JetBrains",
};

// ---------------------------------------------------------------------------
// The plan

enum class Kind : uint8_t { Binary, Code, Script, Prose, Config, Json, Plist, Mail, Markup, History, Base64 };
enum class Cls : uint8_t { Empty, Tiny, Mid, Medium, Large };

struct NamedKind {
  std::string_view name;
  Kind kind;
  uint32_t mode;
};

constexpr NamedKind kConfigFiles[] = {
    {"settings.json", Kind::Json, 0644},   {"config", Kind::Config, 0644},
    {"config.toml", Kind::Config, 0644},   {"config.yaml", Kind::Config, 0644},
    {"settings.ini", Kind::Config, 0644},  {"init.lua", Kind::Script, 0644},
    {"keybindings.json", Kind::Json, 0644}, {"preferences", Kind::Config, 0644},
    {"state", Kind::Config, 0644},         {"storage.json", Kind::Json, 0644},
    {"user", Kind::Binary, 0644},          {"hosts.yml", Kind::Config, 0600},
    {"rclone.conf", Kind::Config, 0600},   {"bookmarks", Kind::Config, 0644},
    {"profiles.ini", Kind::Config, 0644},  {"Local State", Kind::Json, 0644},
    {"Preferences", Kind::Json, 0644},     {"Cookies", Kind::Binary, 0600},
    {"History", Kind::Binary, 0600},       {"credentials", Kind::Config, 0600},
    {"config.fish", Kind::Script, 0644},   {"htoprc", Kind::Config, 0644},
};

// A size drawn for a file before it has a place.
struct Slot {
  Cls cls;
  uint64_t size;
};

struct DirPlan {
  int parent = -1;
  std::string name;
  std::string path;  // relative to the target, "" for the target itself
  int depth = 0;
  uint32_t mode = 0755;
  int64_t mtime = -1;  // nanoseconds since the epoch; -1 until known
  std::unordered_set<std::string> taken;        // folded names of the entries
  std::unordered_map<std::string, int> subdirs;  // asked-for and actual names -> folder
};

struct FilePlan {
  int dir;
  std::string name;
  Kind kind;
  Cls cls;
  uint32_t mode;
  uint64_t size, lo = 0, hi = 0;
  int64_t mtime;
};

struct LinkPlan {
  int dir;
  std::string name;
  std::string target;
  int64_t mtime;
};

std::string fixtureTag(uint64_t seed, size_t id) { return format("%llu/%zu", (unsigned long long)seed, id); }

std::string headerLine(Kind k, uint64_t seed, size_t id) {
  const std::string tag = fixtureTag(seed, id);
  switch (k) {
    case Kind::Binary: return cat("SKERROW fixture ", tag, "\n");
    case Kind::Code: return cat("// fixture ", tag, "\n");
    case Kind::Prose: return cat("fixture ", tag, "\n");
    case Kind::Json: return cat("{\"fixture\": \"", tag, "\",\n");
    case Kind::Plist: return cat("<?xml version=\"1.0\" encoding=\"UTF-8\"?><!-- fixture ", tag, " -->\n");
    case Kind::Mail: return cat("X-Fixture: ", tag, "\n");
    case Kind::Markup: return cat("<!-- fixture ", tag, " -->\n");
    case Kind::Script:
    case Kind::Config:
    case Kind::History:
    case Kind::Base64: break;
  }
  return cat("# fixture ", tag, "\n");
}

constexpr std::string_view kPlistPreamble =
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n<dict>\n";
constexpr std::string_view kPlistClosing = "</dict>\n</plist>\n";
constexpr std::string_view kJsonClosing = "  \"end\": true\n}\n";

uint64_t minimumSize(Kind k, uint64_t seed, size_t id) {
  const uint64_t header = headerLine(k, seed, id).size();
  // Room for a few keys: an empty dictionary is not much of a preferences file.
  if (k == Kind::Plist) return header + kPlistPreamble.size() + kPlistClosing.size() + 200;
  if (k == Kind::Json) return header + kJsonClosing.size() + 100;
  return header;
}

class Home {
 public:
  explicit Home(uint64_t seed) : seed(seed), r(mix(seed, 0x484F4D45)) {
    DirPlan root;
    root.parent = -1;
    dirs.push_back(std::move(root));
  }

  uint64_t seed;
  Rng r;
  std::vector<DirPlan> dirs;
  std::vector<FilePlan> files;
  std::vector<LinkPlan> links;

  int64_t timeIn(int64_t from, int64_t to) {
    if (to <= from) to = from + 1;
    return (from + int64_t(r.below(uint64_t(to - from)))) * 1000000000 + int64_t(r.below(1000000000));
  }
  int64_t anyTime() { return timeIn(kT0, kT1); }

  bool taken(int d, std::string_view name) const { return dirs[size_t(d)].taken.count(foldName(name)) != 0; }

  // Reserves base+ext in folder d, or "base (2)ext" and so on when that is taken.
  std::string claim(int d, std::string_view base, std::string_view ext) {
    std::string name = cat(base, ext);
    for (int n = 2; !dirs[size_t(d)].taken.insert(foldName(name)).second; ++n)
      name = cat(base, " (", std::to_string(n), ")", ext);
    return name;
  }

  int newDir(int parent, std::string_view name, uint32_t mode = 0755) {
    const std::string actual = claim(parent, name, "");
    DirPlan d;
    d.parent = parent;
    d.name = actual;
    d.path = parent == 0 ? actual : cat(dirs[size_t(parent)].path, "/", actual);
    d.depth = dirs[size_t(parent)].depth + 1;
    d.mode = mode;
    const int idx = int(dirs.size());
    dirs.push_back(std::move(d));
    dirs[size_t(parent)].subdirs.emplace(std::string(name), idx);
    dirs[size_t(parent)].subdirs.emplace(actual, idx);
    return idx;
  }

  // The folder called name in parent, made if needed.
  int dir(int parent, std::string_view name, uint32_t mode = 0755) {
    const auto it = dirs[size_t(parent)].subdirs.find(std::string(name));
    if (it != dirs[size_t(parent)].subdirs.end()) return it->second;
    return newDir(parent, name, mode);
  }

  int dirAt(std::string_view path, uint32_t mode = 0755) {
    int d = 0;
    while (!path.empty()) {
      const size_t slash = path.find('/');
      const std::string_view part = path.substr(0, slash);
      path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
      d = dir(d, part, path.empty() ? mode : 0755);
    }
    return d;
  }

  void addFile(int d, std::string_view base, std::string_view ext, const Slot& s, Kind kind, uint32_t mode,
               int64_t mtime) {
    FilePlan f;
    f.dir = d;
    f.name = claim(d, base, ext);
    f.cls = s.cls;
    f.size = s.size;
    if (s.cls == Cls::Empty && (kind == Kind::Plist || kind == Kind::Json)) {  // an empty one would not parse
      f.cls = Cls::Tiny;
      f.size = logUniform(r, 300, kTinyEnd);
    }
    f.kind = (f.cls == Cls::Empty || f.cls == Cls::Medium || f.cls == Cls::Large) ? Kind::Binary : kind;
    f.mode = mode;
    f.mtime = mtime;
    files.push_back(std::move(f));
  }

  // A base name that is still free in d, trying a few candidates before
  // falling back to a numbered one.
  std::string freshBase(int d, std::string_view ext, const std::function<std::string()>& make) {
    std::string base;
    for (int i = 0; i < 6; ++i) {
      base = make();
      if (!taken(d, cat(base, ext))) return base;
    }
    return base;  // claim() numbers it
  }

  std::string title(int lo, int hi) {
    std::string s;
    const int n = r.range(lo, hi);
    for (int i = 0; i < n; ++i) {
      if (i) s += ' ';
      appendCap(s, r.pick(kWords));
    }
    return s;
  }

  std::string ident() {
    const uint64_t u = r.below(3);
    if (u == 0) return std::string(r.pick(kIdents));
    return cat(r.pick(kIdents), "_", r.pick(kIdents));
  }

  std::string camelIdent() { return cat(capitalized(r.pick(kIdents)), capitalized(r.pick(kIdents))); }

  void buildFixed(std::vector<Slot>& pool, size_t& next);
  void buildPictures(const std::vector<Slot>& slots);
  void buildMusic(const std::vector<Slot>& slots);
  void buildMovies(const std::vector<Slot>& slots);
  void buildDocuments(const std::vector<Slot>& slots);
  void buildDownloads(const std::vector<Slot>& slots);
  void buildDesktop(const std::vector<Slot>& slots);
  void buildMail(const std::vector<Slot>& slots);
  void buildPreferences(const std::vector<Slot>& slots);
  void buildAppSupport(const std::vector<Slot>& slots);
  void buildConfig(const std::vector<Slot>& slots);
  void buildCache(const std::vector<Slot>& slots);
  void buildSrc(const std::vector<Slot>& slots);
  void buildLinks(size_t count);
  void buildEmptyFolders();
  void settleFolderTimes();

 private:
  void buildProject(int top, const std::vector<Slot>& slots, size_t begin, size_t end);
  void buildMailAccount(int account, const std::vector<Slot>& slots, size_t begin, size_t end);
  std::string relativePath(int from, int toDir, std::string_view leaf) const;
  bool linkable(int d) const;
};

// Spreads files over a growing tree of folders below top: each folder takes a
// random number of files, then a new one is opened inside it, next to it or
// somewhere else already known.  With filesInTop false, top itself only holds
// folders.
class Nest {
 public:
  using Namer = std::function<std::string(int relDepth)>;
  Nest(Home& h, int top, int maxDepth, int minPer, int maxPer, bool filesInTop, Namer namer)
      : h_(h), top_(top), maxDepth_(maxDepth), minPer_(minPer), maxPer_(maxPer), namer_(std::move(namer)) {
    opened_.push_back(top);
    if (!filesInTop) cur_ = top;
  }

  int next() {
    if (left_ <= 0) open();
    --left_;
    return cur_;
  }

 private:
  int rel(int d) const { return h_.dirs[size_t(d)].depth - h_.dirs[size_t(top_)].depth; }

  void open() {
    if (cur_ < 0) {
      cur_ = top_;
    } else {
      const double u = h_.r.unit();
      int parent = u < 0.45 ? cur_ : u < 0.8 ? (cur_ == top_ ? top_ : h_.dirs[size_t(cur_)].parent)
                                             : opened_[h_.r.below(opened_.size())];
      while (rel(parent) >= maxDepth_) parent = h_.dirs[size_t(parent)].parent;
      if (parent < 0) parent = top_;
      cur_ = h_.dir(parent, namer_(rel(parent)));
      opened_.push_back(cur_);
    }
    left_ = h_.r.range(minPer_, maxPer_);
  }

  Home& h_;
  int top_, maxDepth_, minPer_, maxPer_;
  Namer namer_;
  std::vector<int> opened_;
  int cur_ = -1;
  int left_ = 0;
};

bool isSmall(const Slot& s) { return s.cls == Cls::Empty || s.cls == Cls::Tiny || s.cls == Cls::Mid; }

// Files every home has, taken from the front of the small sizes.  The mail
// preferences come first so that even a tiny tree has them.
void Home::buildFixed(std::vector<Slot>& pool, size_t& next) {
  struct Fixed {
    std::string_view dir, name;
    Kind kind;
    uint32_t mode;
  };
  static constexpr Fixed kFixed[] = {
      {"Library/Preferences", "com.apple.mail.plist", Kind::Plist, 0644},
      {"", ".bashrc", Kind::Script, 0644},
      {"", ".profile", Kind::Script, 0644},
      {"", ".bash_history", Kind::History, 0600},
      {"", ".gitconfig", Kind::Config, 0644},
      {".ssh", "id_ed25519", Kind::Base64, 0600},
      {".ssh", "id_ed25519.pub", Kind::Base64, 0644},
      {".ssh", "known_hosts", Kind::Base64, 0644},
      {".ssh", "config", Kind::Config, 0600},
      {"", "notes.txt", Kind::Prose, 0644},
      {"", "TODO.md", Kind::Prose, 0644},
      {"", "Untitled Document", Kind::Prose, 0644},
      {"", "résumé draft.odt", Kind::Binary, 0644},
      {"", "photo@2008.jpg", Kind::Binary, 0644},
      {"", ".vimrc", Kind::Config, 0644},
      {"", ".Xauthority", Kind::Binary, 0600},
      {"", ".lesshst", Kind::History, 0600},
      {".config", "user-dirs.dirs", Kind::Config, 0644},
      {".config", "mimeapps.list", Kind::Config, 0644},
      {".local/share", "recently-used.xbel", Kind::Markup, 0600},
  };
  for (const Fixed& f : kFixed) {
    if (next >= pool.size()) return;
    Slot s = pool[next++];
    if (s.cls == Cls::Empty) s = {Cls::Tiny, logUniform(r, 200, kTinyEnd)};
    addFile(dirAt(f.dir), f.name, "", s, f.kind, f.mode, anyTime());
  }
}

void Home::buildPictures(const std::vector<Slot>& slots) {
  const int top = dirAt("Pictures");
  int event = top, left = 0, counter = 0, style = 0;
  int64_t from = kT0, to = kT1;
  for (const Slot& s : slots) {
    if (left == 0) {
      const int year = 2019 + int(r.below(5));
      const int month = 1 + int(r.below(12));
      from = epochOf(year, month, 1);
      to = month == 12 ? epochOf(year + 1, 1, 1) : epochOf(year, month + 1, 1);
      std::string name(r.pick(kEvents));
      if (r.chance(0.4)) name = cat(format("%04d-%02d ", year, month), name);
      event = dir(dir(top, std::to_string(year)), name);
      left = r.range(12, 150);
      counter = r.range(1, 9000);
      style = int(r.below(4));
    }
    --left;
    ++counter;
    std::string base;
    std::string_view ext;
    switch (style) {
      case 0:
        base = format("IMG_%04d", counter % 10000);
        ext = r.chance(0.1) ? ".HEIC" : ".JPG";
        break;
      case 1:
        base = format("DSC%05d", counter);
        ext = r.chance(0.15) ? ".ARW" : ".jpg";
        break;
      case 2:
        base = format("Photo %d", counter);
        ext = ".jpeg";
        break;
      default:
        base = format("photo@%d", counter);
        ext = ".jpg";
        break;
    }
    Kind kind = Kind::Binary;
    if (isSmall(s)) {
      const double u = r.unit();
      if (u < 0.3) {
        ext = ".AAE";
        kind = Kind::Plist;
      } else if (u < 0.5) {
        ext = ".xmp";
        kind = Kind::Markup;
      }
    } else if (style == 0 && r.chance(0.04)) {
      ext = ".MOV";
    }
    addFile(event, base, ext, s, kind, 0644, timeIn(from, to));
  }
}

void Home::buildMusic(const std::vector<Slot>& slots) {
  static constexpr std::string_view kAudio[] = {".mp3", ".m4a", ".flac"};
  static constexpr std::string_view kPlaylists[] = {"🎵 Favourites", "Running", "Été", "Sunday Morning",
                                                    "Focus", "Road Trip", "Party", "Chill"};
  const int top = dirAt("Music");
  int artist = top, album = top, left = 0, track = 0, albumsLeft = 0;
  bool cover = false;
  std::string_view ext = ".mp3";
  int64_t from = kT0, to = kT1;
  for (const Slot& s : slots) {
    if (isSmall(s) && r.chance(0.03)) {
      const int lists = dir(top, "Playlists");
      addFile(lists, std::string(r.pick(kPlaylists)), ".m3u", s, Kind::Prose, 0644, anyTime());
      continue;
    }
    if (left == 0) {
      if (albumsLeft == 0) {
        std::string name;
        const double u = r.unit();
        if (u < 0.3)
          name = std::string(r.pick(kArtists));
        else if (u < 0.8)
          name = cat("The ", r.pick(kAdjectives), " ", r.pick(kNouns));
        else
          name = cat(r.pick(kAdjectives), " ", r.pick(kNouns));
        artist = dir(top, name);
        albumsLeft = r.range(1, 3);
      }
      --albumsLeft;
      std::string name = title(1, 4);
      if (r.chance(0.3)) name += format(" (%d)", r.range(1975, 2023));
      album = newDir(artist, name);
      left = r.range(6, 16);
      track = 0;
      cover = false;
      ext = r.pick(kAudio);
      from = kT0 + int64_t(r.below(uint64_t(kT1 - kT0 - 30 * kDay)));
      to = from + 14 * kDay;
    }
    --left;
    if (!isSmall(s)) {
      ++track;
      addFile(album, cat(format("%02d ", track), title(1, 5)), ext, s, Kind::Binary, 0644, timeIn(from, to));
    } else if (!cover) {
      cover = true;
      addFile(album, "cover", ".jpg", s, Kind::Binary, 0644, timeIn(from, to));
    } else {
      const double u = r.unit();
      if (u < 0.5)
        addFile(album, format("Booklet %d", r.range(1, 12)), ".jpg", s, Kind::Binary, 0644, timeIn(from, to));
      else if (u < 0.8)
        addFile(album, cat(format("%02d ", r.range(1, 16)), title(1, 4)), ".lrc", s, Kind::Prose, 0644,
                timeIn(from, to));
      else
        addFile(album, "album", ".cue", s, Kind::Prose, 0644, timeIn(from, to));
    }
  }
}

void Home::buildMovies(const std::vector<Slot>& slots) {
  static constexpr std::string_view kVideo[] = {".mov", ".mp4", ".m4v", ".mkv"};
  const int top = dirAt("Movies");
  int counter = r.range(1, 500);
  for (const Slot& s : slots) {
    const int64_t t = anyTime();
    const uint64_t where = r.below(4);
    ++counter;
    if (isSmall(s) && r.chance(0.7)) {
      const int d = where < 2 ? top : dir(top, "Exports");
      const std::string base = cat(r.pick(kMovieTitles), r.chance(0.5) ? ".en" : "");
      addFile(d, base, ".srt", s, Kind::Prose, 0644, t);
      continue;
    }
    if (where == 0) {
      addFile(top, r.pick(kMovieTitles), r.pick(kVideo), s, Kind::Binary, 0644, t);
    } else if (where == 1) {
      const int d = dir(dir(top, "Home Videos"), std::to_string(civil(t / 1000000000).y));
      if (r.chance(0.5))
        addFile(d, format("Clip %03d", counter % 1000), ".mp4", s, Kind::Binary, 0644, t);
      else
        addFile(d, format("IMG_%04d", counter % 10000), ".MOV", s, Kind::Binary, 0644, t);
    } else if (where == 2) {
      addFile(dir(top, "Exports"), cat(r.pick(kMovieTitles), " export"), r.pick(kVideo), s, Kind::Binary, 0644, t);
    } else {
      addFile(dir(top, "Screen Recordings"), cat("Screen Recording ", screenshotStamp(t / 1000000000)), ".mov", s,
              Kind::Binary, 0644, t);
    }
  }
}

void Home::buildDocuments(const std::vector<Slot>& slots) {
  static constexpr std::string_view kLargeBases[] = {"Backup 2020", "Scans Archive", "VM Disk",
                                                     "Photo Library Export", "Old Laptop", "Dataset"};
  static constexpr std::string_view kLargeExt[] = {".zip", ".tar", ".dmg", ".iso", ".vdi"};
  static constexpr std::string_view kMediumExt[] = {".pdf", ".docx", ".pptx", ".key", ".psd", ".tiff", ".zip",
                                                    ".numbers"};
  struct Ext {
    std::string_view ext;
    Kind kind;
  };
  static constexpr Ext kSmallExt[] = {{".txt", Kind::Prose},  {".md", Kind::Prose},    {".csv", Kind::Prose},
                                      {".rtf", Kind::Prose},  {".pdf", Kind::Binary},  {".docx", Kind::Binary},
                                      {".xlsx", Kind::Binary}, {".odt", Kind::Binary}, {".pages", Kind::Binary},
                                      {".html", Kind::Markup}};
  const int top = dirAt("Documents");
  Nest nest(*this, top, 5, 3, 40, true, [this](int depth) {
    return std::string(depth == 0 ? r.pick(kDocTop) : r.pick(kDocSub));
  });
  for (const Slot& s : slots) {
    const int d = nest.next();
    const std::string& path = dirs[size_t(d)].path;
    const bool privateFolder = path.rfind("Documents/Taxes", 0) == 0 || path.rfind("Documents/Finances", 0) == 0;
    const uint32_t mode = privateFolder ? 0600 : 0644;
    if (s.cls == Cls::Large) {
      addFile(d, cat(r.pick(kLargeBases), r.pick(kDocVariants)), r.pick(kLargeExt), s, Kind::Binary, mode, anyTime());
    } else if (s.cls == Cls::Medium) {
      addFile(d, cat(r.pick(kDocBases), r.pick(kDocVariants)), r.pick(kMediumExt), s, Kind::Binary, mode, anyTime());
    } else {
      const Ext& e = r.pick(kSmallExt);
      addFile(d, cat(r.pick(kDocBases), r.pick(kDocVariants)), e.ext, s, e.kind, mode, anyTime());
    }
  }
}

void Home::buildDownloads(const std::vector<Slot>& slots) {
  static constexpr std::string_view kArchiveExt[] = {".tar.gz", ".zip", ".deb", ".AppImage", ".iso", ".pdf"};
  const int top = dirAt("Downloads");
  for (const Slot& s : slots) {
    const int64_t t = anyTime();
    switch (r.below(5)) {
      case 0:
        addFile(top, cat(r.pick(kIdents), format("-%d.%d.%d", r.range(0, 4), r.range(0, 20), r.range(0, 9))),
                r.pick(kArchiveExt), s, Kind::Binary, 0644, t);
        break;
      case 1: addFile(top, "document", ".pdf", s, Kind::Binary, 0644, t); break;
      case 2: {
        const Civil c = civil(t / 1000000000);
        addFile(top, format("Rechnung_%04d_%02d", c.y, c.m), ".pdf", s, Kind::Binary, 0644, t);
        break;
      }
      case 3: addFile(top, format("photo@%d", r.range(2000, 2023)), ".jpg", s, Kind::Binary, 0644, t); break;
      default: addFile(top, title(1, 3), ".txt", s, Kind::Prose, 0644, t); break;
    }
  }
}

void Home::buildDesktop(const std::vector<Slot>& slots) {
  static constexpr std::string_view kSub[] = {"Old Stuff", "Projects 2023", "À trier", "Screenshots"};
  const int top = dirAt("Desktop");
  for (const Slot& s : slots) {
    const int d = r.chance(0.75) ? top : dir(top, r.pick(kSub));
    const int64_t t = timeIn(kT1 - 400 * kDay, kT1);
    switch (r.below(6)) {
      case 0:
      case 1:
        addFile(d, cat("Screenshot ", screenshotStamp(t / 1000000000)), ".png", s, Kind::Binary, 0644, t);
        break;
      case 2: addFile(d, "todo", ".txt", s, Kind::Prose, 0644, t); break;
      case 3: addFile(d, format("Untitled %d", r.range(1, 9)), ".rtf", s, Kind::Prose, 0644, t); break;
      case 4: addFile(d, "Meeting notes – March", ".txt", s, Kind::Prose, 0644, t); break;
      default: addFile(d, format("IMG_%04d", r.range(1, 9999)), ".JPG", s, Kind::Binary, 0644, t); break;
    }
  }
}

void Home::buildMail(const std::vector<Slot>& slots) {
  const int v10 = dirAt("Library/Mail/V10");
  size_t i = 0;
  const int mailData = dir(v10, "MailData");
  if (i < slots.size()) addFile(mailData, "Envelope Index", "", slots[i++], Kind::Binary, 0644, anyTime());
  if (i < slots.size())
    addFile(dir(mailData, "Signatures"), "AllSignatures", ".plist", slots[i++], Kind::Plist, 0644, anyTime());
  if (i < slots.size()) addFile(mailData, "SyncedRules", ".plist", slots[i++], Kind::Plist, 0644, anyTime());
  const size_t rest = slots.size() - i;
  const int accounts = 1 + (rest > 4000) + (rest > 20000);
  for (int a = 0; a < accounts; ++a) {
    const size_t n = a + 1 == accounts ? slots.size() - i : (slots.size() - i) / size_t(accounts - a);
    buildMailAccount(newDir(v10, uuid(r)), slots, i, i + n);
    i += n;
  }
}

void Home::buildMailAccount(int account, const std::vector<Slot>& slots, size_t begin, size_t end) {
  static constexpr std::string_view kParents[] = {"Projects", "Archive", "Clients"};
  static constexpr std::string_view kAttachmentExt[] = {".pdf", ".jpg", ".docx", ".ics", ".png"};
  uint64_t id = uint64_t(r.range(1000, 60000));
  std::unordered_map<int, int> dataOf;  // mailbox -> its Data folder
  size_t k = begin;
  bool first = true;
  while (k < end) {
    std::string name = first ? std::string("INBOX") : std::string(r.pick(kMailboxes));
    int parent = account;
    if (!first && r.chance(0.2)) parent = dir(account, cat(r.pick(kParents), ".mbox"));
    const int mbox = dir(parent, cat(name, ".mbox"));
    size_t quota = first ? size_t(r.range(200, 3000)) : size_t(r.range(20, 1500));
    quota = std::min(quota, end - k);
    first = false;
    int data;
    if (const auto it = dataOf.find(mbox); it != dataOf.end()) {
      data = it->second;
    } else {
      data = dir(newDir(mbox, uuid(r)), "Data");
      dataOf.emplace(mbox, data);
      if (quota > 1) {
        addFile(mbox, "Info", ".plist", slots[k++], Kind::Plist, 0644, anyTime());
        --quota;
      }
    }
    for (size_t q = 0; q < quota; ++q) {
      const Slot& s = slots[k++];
      id += 1 + r.below(3);
      int d = data;
      for (uint64_t v = id / 1000; v > 0; v /= 10) d = dir(d, std::to_string(v % 10));
      if (r.chance(0.04)) {
        const int at = dir(dir(dir(d, "Attachments"), std::to_string(id)), std::to_string(2 + r.below(3)));
        addFile(at, cat(r.pick(kDocBases), r.pick(kDocVariants)), r.pick(kAttachmentExt), s, Kind::Binary, 0600,
                anyTime());
      } else {
        addFile(dir(d, "Messages"), std::to_string(id), r.chance(0.05) ? ".partial.emlx" : ".emlx", s, Kind::Mail,
                0644, anyTime());
      }
    }
  }
}

void Home::buildPreferences(const std::vector<Slot>& slots) {
  const int top = dirAt("Library/Preferences");
  for (const Slot& s : slots) {
    if (r.chance(0.1)) {
      const int byHost = dir(top, "ByHost");
      const std::string base = cat("com.", r.pick(kVendors), ".", r.pick(kPrefApps), ".", uuid(r));
      addFile(byHost, base, ".plist", s, Kind::Plist, 0644, anyTime());
      continue;
    }
    const std::string base = freshBase(top, ".plist", [this] {
      return cat("com.", r.pick(kVendors), ".", r.chance(0.5) ? r.pick(kPrefApps) : r.pick(kIdents));
    });
    addFile(top, base, ".plist", s, Kind::Plist, 0644, anyTime());
  }
}

void Home::buildAppSupport(const std::vector<Slot>& slots) {
  struct Ext {
    std::string_view ext;
    Kind kind;
  };
  static constexpr Ext kSmallExt[] = {{".db", Kind::Binary},   {".sqlite", Kind::Binary}, {".json", Kind::Json},
                                      {".plist", Kind::Plist}, {".log", Kind::Prose},     {".ldb", Kind::Binary},
                                      {"", Kind::Binary}};
  static constexpr std::string_view kMediumExt[] = {".db", ".sqlite", ".bin", ".pak"};
  const int top = dirAt("Library/Application Support");
  Nest nest(*this, top, 4, 3, 30, false, [this](int depth) {
    if (depth == 0) return std::string(r.pick(kAppNames));
    if (r.chance(0.4)) return r.chance(0.5) ? hex(r, 40) : cat(alnum(r, 8), ".default");
    return std::string(r.pick(kAppSubs));
  });
  for (const Slot& s : slots) {
    const int d = nest.next();
    if (!isSmall(s)) {
      addFile(d, ident(), r.pick(kMediumExt), s, Kind::Binary, 0644, anyTime());
      continue;
    }
    const Ext& e = r.pick(kSmallExt);
    addFile(d, e.ext.empty() ? hex(r, 40) : ident(), e.ext, s, e.kind, 0644, anyTime());
  }
}

void Home::buildConfig(const std::vector<Slot>& slots) {
  static constexpr std::string_view kExt[] = {".conf", ".json", ".ini", ".yaml", ".toml"};
  const int top = dirAt(".config");
  Nest nest(*this, top, 3, 2, 18, false, [this](int depth) {
    return std::string(depth == 0 ? r.pick(kConfigApps) : r.pick(kConfigSubs));
  });
  for (const Slot& s : slots) {
    const int d = nest.next();
    const NamedKind& f = r.pick(kConfigFiles);
    if (!taken(d, f.name)) {
      addFile(d, f.name, "", s, f.kind, f.mode, anyTime());
      continue;
    }
    const std::string_view ext = r.pick(kExt);
    const Kind kind = ext == ".json" ? Kind::Json : Kind::Config;
    addFile(d, cat(r.pick(kIdents), "-", r.pick(kIdents)), ext, s, kind, 0644, anyTime());
  }
}

void Home::buildCache(const std::vector<Slot>& slots) {
  static constexpr std::string_view kThumbs[] = {"normal", "large", "x-large"};
  static constexpr std::string_view kExt[] = {".json", ".log", ".db", ".bin"};
  const int top = dirAt(".cache", 0700);
  const int entries = dirAt(cat(".cache/mozilla/firefox/", alnum(r, 8), ".default-release/cache2/entries"));
  const int64_t from = kT1 - 200 * kDay;
  for (const Slot& s : slots) {
    const int64_t t = timeIn(from, kT1);
    const uint64_t u = r.below(100);
    if (u < 25) {
      addFile(dir(dir(top, "thumbnails"), r.pick(kThumbs)), hex(r, 32), ".png", s, Kind::Binary, 0644, t);
    } else if (u < 55) {
      addFile(entries, hex(r, 40, true), "", s, Kind::Binary, 0600, t);
    } else if (u < 61) {
      int d = dir(dir(top, "pip"), "http-v2");
      for (int i = 0; i < 3; ++i) d = dir(d, hex(r, 1));
      addFile(d, hex(r, 56), ".body", s, Kind::Binary, 0644, t);
    } else if (u < 73) {
      addFile(dir(dir(top, "mesa_shader_cache"), hex(r, 2)), hex(r, 38), "", s, Kind::Binary, 0644, t);
    } else if (u < 90) {
      addFile(dir(dir(top, "go-build"), hex(r, 2)), cat(hex(r, 64), "-d"), "", s, Kind::Binary, 0644, t);
    } else if (u < 92) {
      addFile(dir(top, "fontconfig"), cat(hex(r, 32), "-le64"), ".cache-7", s, Kind::Binary, 0644, t);
    } else {
      const std::string_view ext = r.pick(kExt);
      const Kind kind = ext == ".json" ? Kind::Json : ext == ".log" ? Kind::Prose : Kind::Binary;
      addFile(dir(top, r.pick(kCacheApps)), ident(), ext, s, kind, 0644, t);
    }
  }
}

void Home::buildSrc(const std::vector<Slot>& slots) {
  const int top = dirAt("src");
  size_t i = 0;
  while (i < slots.size()) {
    size_t n = size_t(r.range(400, 3000));
    if (slots.size() - i < n + 200) n = slots.size() - i;
    buildProject(top, slots, i, i + n);
    i += n;
  }
}

void Home::buildProject(int top, const std::vector<Slot>& slots, size_t begin, size_t end) {
  enum Lang { C, Cpp, Python, Rust, Go, JavaScript, Shell, kLangs };
  struct LangInfo {
    std::string_view src, hdr, srcDir, buildFile;
    Kind buildKind, srcKind;
  };
  static constexpr LangInfo kLang[kLangs] = {
      {".c", ".h", "src", "Makefile", Kind::Script, Kind::Code},
      {".cpp", ".hpp", "src", "CMakeLists.txt", Kind::Script, Kind::Code},
      {".py", "", "", "pyproject.toml", Kind::Config, Kind::Script},
      {".rs", "", "src", "Cargo.toml", Kind::Config, Kind::Code},
      {".go", "", "internal", "go.mod", Kind::Config, Kind::Code},
      {".js", ".ts", "src", "package.json", Kind::Json, Kind::Code},
      {".sh", "", "lib", "Makefile", Kind::Script, Kind::Script},
  };
  static constexpr std::string_view kHooks[] = {
      "applypatch-msg.sample", "commit-msg.sample", "fsmonitor-watchman.sample", "post-update.sample",
      "pre-applypatch.sample", "pre-commit.sample", "pre-merge-commit.sample",   "pre-push.sample",
      "pre-rebase.sample",     "pre-receive.sample", "prepare-commit-msg.sample", "update.sample"};
  static constexpr std::string_view kAssets[] = {"logo@2x", "logo@3x", "icon@2x", "banner", "favicon", "hero"};

  std::string name;
  for (int tries = 0; tries < 6; ++tries) {
    name = std::string(r.pick(kProjects));
    if (!taken(top, name)) break;
    name = format("project-%d", r.range(1, 999));
  }
  const int project = newDir(top, name);
  const Lang lang = Lang(r.below(kLangs));
  const LangInfo& li = kLang[lang];
  const int64_t start = kT0 + int64_t(r.below(uint64_t(kT1 - kT0) * 7 / 10));
  const int64_t stop = std::min(kT1, start + int64_t(180 + r.below(720)) * kDay);
  auto t = [&] { return timeIn(start, stop); };
  const std::string package(r.pick(kIdents));
  const int srcTop = li.srcDir.empty() ? dir(project, package) : dir(project, li.srcDir);
  const int git = dir(project, ".git");
  Nest nest(*this, srcTop, 5, 4, 25, true, [this](int) {
    return r.chance(0.8) ? std::string(r.pick(kModules)) : std::string(r.pick(kIdents));
  });
  size_t hook = 0;

  for (size_t k = begin; k < end; ++k) {
    const Slot& s = slots[k];
    switch (k - begin) {
      case 0: addFile(project, "README", ".md", s, Kind::Prose, 0644, t()); continue;
      case 1: addFile(project, "LICENSE", "", s, Kind::Prose, 0644, t()); continue;
      case 2: addFile(project, ".gitignore", "", s, Kind::Config, 0644, t()); continue;
      case 3: addFile(project, li.buildFile, "", s, li.buildKind, 0644, t()); continue;
      case 4: addFile(git, "HEAD", "", s, Kind::Config, 0644, t()); continue;
      case 5: addFile(git, "config", "", s, Kind::Config, 0644, t()); continue;
      case 6: addFile(git, "description", "", s, Kind::Prose, 0644, t()); continue;
      case 7: addFile(dir(project, "scripts"), "build", ".sh", s, Kind::Script, 0755, t()); continue;
      default: break;
    }
    const double u = r.unit();
    if (u < 0.30) {
      addFile(dir(dir(git, "objects"), hex(r, 2)), hex(r, 38), "", s, Kind::Binary, 0644, t());
    } else if (u < 0.31) {
      addFile(dir(dir(dir(git, "refs"), "heads"), "feature"), ident(), "", s, Kind::Config, 0644, t());
    } else if (u < 0.313 && hook < std::size(kHooks)) {
      addFile(dir(git, "hooks"), kHooks[hook++], "", s, Kind::Script, 0755, t());
    } else if (u < 0.316) {
      addFile(dir(project, "scripts"), ident(), r.chance(0.7) ? ".sh" : ".py", s, Kind::Script, 0755, t());
    } else if (u < 0.35) {
      int d = dir(project, "docs");
      if (r.chance(0.3)) d = dir(d, r.pick(kModules));
      addFile(d, r.chance(0.3) ? camelIdent() : ident(), ".md", s, Kind::Prose, 0644, t());
    } else if (u < 0.38) {
      const int d = dir(dir(project, "assets"), r.chance(0.5) ? "img" : "icons");
      if (r.chance(0.3))
        addFile(d, r.pick(kAssets), ".png", s, Kind::Binary, 0644, t());
      else if (r.chance(0.5))
        addFile(d, ident(), ".svg", s, Kind::Markup, 0644, t());
      else
        addFile(d, ident(), ".png", s, Kind::Binary, 0644, t());
    } else if (u < 0.45) {
      const int d = dir(project, "tests");
      const std::string base = lang == Python ? cat("test_", ident()) : cat(ident(), "_test");
      addFile(d, base, li.src, s, li.srcKind, 0644, t());
    } else {
      const int d = nest.next();
      if (s.cls == Cls::Empty) {
        if (lang == Python && !taken(d, "__init__.py")) {
          addFile(d, "__init__", ".py", s, Kind::Script, 0644, t());
          continue;
        }
        if (!taken(d, ".gitkeep")) {
          addFile(d, ".gitkeep", "", s, Kind::Binary, 0644, t());
          continue;
        }
      }
      const bool header = !li.hdr.empty() && r.chance(0.35);
      const bool camel = (lang == Cpp || lang == JavaScript) && r.chance(0.4);
      addFile(d, camel ? camelIdent() : ident(), header ? li.hdr : li.src, s, li.srcKind, 0644, t());
    }
  }
}

std::string Home::relativePath(int from, int toDir, std::string_view leaf) const {
  auto chain = [this](int d) {
    std::vector<int> c;
    for (; d > 0; d = dirs[size_t(d)].parent) c.push_back(d);
    std::reverse(c.begin(), c.end());
    return c;
  };
  const std::vector<int> a = chain(from), b = chain(toDir);
  size_t common = 0;
  while (common < a.size() && common < b.size() && a[common] == b[common]) ++common;
  std::string p;
  for (size_t i = common; i < a.size(); ++i) p += "../";
  for (size_t i = common; i < b.size(); ++i) p += cat(dirs[size_t(b[i])].name, "/");
  if (leaf.empty()) {
    if (p.empty()) return ".";
    p.pop_back();
    return p;
  }
  return p.append(leaf);
}

// Where a person would make or follow a link: not inside caches, mail stores
// or repositories.
bool Home::linkable(int d) const {
  const std::string& p = dirs[size_t(d)].path;
  return p.rfind(".cache", 0) != 0 && p.rfind("Library", 0) != 0 && p.find(".git") == std::string::npos;
}

// About one link per thousand files: the first dangles, a third of the others
// point to folders (from the home folder, the desktop or a document folder)
// and the rest to files (from a folder near the file).  All are relative.
void Home::buildLinks(size_t count) {
  if (count == 0) return;
  const int desktop = dirAt("Desktop");
  links.push_back({desktop, claim(desktop, "Old Project", ""), "../Documents/Old Project (deleted)", anyTime()});
  std::vector<int> folders;
  for (size_t d = 1; d < dirs.size(); ++d)
    if (linkable(int(d)) && dirs[d].depth >= 2) folders.push_back(int(d));
  std::vector<size_t> candidates;
  for (size_t i = 0; i < files.size(); ++i)
    if (linkable(files[i].dir) && files[i].dir != 0) candidates.push_back(i);
  const int documents = dirAt("Documents");
  for (size_t k = 1; k < count; ++k) {
    if (folders.empty() && candidates.empty()) break;
    if (candidates.empty() || (k % 3 == 1 && !folders.empty())) {
      const int target = folders[r.below(folders.size())];
      const uint64_t u = r.below(3);
      int at = u == 0 ? 0 : u == 1 ? desktop : documents;
      if (at == documents && dirs[size_t(target)].path.rfind("Documents/", 0) == 0) at = 0;
      const std::string name = claim(at, dirs[size_t(target)].name, "");
      links.push_back({at, name, relativePath(at, target, ""), anyTime()});
    } else {
      const FilePlan& f = files[candidates[r.below(candidates.size())]];
      // From the file's own folder, one above it, or a sibling folder.
      int at = f.dir;
      const int up = dirs[size_t(f.dir)].parent;
      const uint64_t u = r.below(3);
      if (u == 1 && up > 0) {
        at = up;
      } else if (u == 2 && up >= 0) {
        std::vector<int> siblings;
        for (size_t d = size_t(f.dir) + 1; d < dirs.size() && siblings.size() < 8; ++d)
          if (dirs[d].parent == up && linkable(int(d))) siblings.push_back(int(d));
        for (size_t d = size_t(f.dir); d-- > 1 && siblings.size() < 16;)
          if (dirs[d].parent == up && linkable(int(d))) siblings.push_back(int(d));
        if (!siblings.empty()) at = siblings[r.below(siblings.size())];
      }
      std::string_view base = f.name, ext;
      if (const size_t dot = f.name.rfind('.'); dot != std::string::npos && dot > 0) {
        base = std::string_view(f.name).substr(0, dot);
        ext = std::string_view(f.name).substr(dot);
      }
      const std::string name = at == f.dir ? claim(at, cat(base, " link"), ext) : claim(at, base, ext);
      links.push_back({at, name, relativePath(at, f.dir, f.name), anyTime()});
    }
  }
}

void Home::buildEmptyFolders() {
  newDir(dirAt("Pictures"), "Imports");
  newDir(dirAt("Music"), "Unsorted");
  newDir(dirAt("Desktop"), "New Folder");
  newDir(dirAt(".cache"), "sessions");
  newDir(dirAt("Library"), "Caches");
  newDir(0, "Public");
  newDir(0, "Templates");
  // And an archive folder somewhere in the documents nobody filled.
  const int docs = dirAt("Documents");
  std::vector<int> below;
  for (size_t d = 1; d < dirs.size(); ++d)
    if (dirs[d].path.rfind("Documents/", 0) == 0 && dirs[d].depth <= 4) below.push_back(int(d));
  newDir(below.empty() ? docs : below[r.below(below.size())], "Archive");
}

// A folder's time is that of its newest entry; an empty one gets its own.
void Home::settleFolderTimes() {
  for (const FilePlan& f : files)
    dirs[size_t(f.dir)].mtime = std::max(dirs[size_t(f.dir)].mtime, f.mtime);
  for (const LinkPlan& l : links)
    dirs[size_t(l.dir)].mtime = std::max(dirs[size_t(l.dir)].mtime, l.mtime);
  for (size_t d = dirs.size(); d-- > 0;) {  // children come after their parents
    if (dirs[d].mtime < 0) dirs[d].mtime = anyTime();
    if (dirs[d].parent >= 0)
      dirs[size_t(dirs[d].parent)].mtime = std::max(dirs[size_t(dirs[d].parent)].mtime, dirs[d].mtime);
  }
}

// ---------------------------------------------------------------------------
// Sizes

struct Sizes {
  std::vector<Slot> large, medium, small;
  uint64_t mediumTarget = 0, smallTarget = 0;
};

Sizes drawSizes(uint64_t files, uint64_t bytes, Rng& r) {
  Sizes z;
  uint64_t largeSum = 0;
  if (bytes >= kLargeFloor && files >= 20) {
    const uint64_t budget = bytes / 4;
    while (budget - largeSum >= kLargeMin && z.large.size() < files / 20) {
      const uint64_t s = std::min(logUniform(r, kLargeMin, kLargeMax + 1), budget - largeSum);
      z.large.push_back({Cls::Large, s});
      largeSum += s;
    }
  }
  // What the large files left of their quarter goes to the medium ones.
  const uint64_t mediumBudget = bytes / 10 * 7 + bytes % 10 * 7 / 10 - largeSum;
  const double mediumMean = logUniformMean(double(kMediumMin), double(kMediumMax));
  uint64_t nMedium =
      mediumBudget < kMediumMin ? 0 : std::max<uint64_t>(1, uint64_t(double(mediumBudget) / mediumMean + 0.5));
  nMedium = std::min(nMedium, (files - z.large.size()) / 4);
  for (uint64_t i = 0; i < nMedium; ++i) z.medium.push_back({Cls::Medium, logUniform(r, kMediumMin, kMediumMax + 1)});
  z.mediumTarget = nMedium ? mediumBudget : 0;
  z.smallTarget = bytes - largeSum - z.mediumTarget;

  const uint64_t nSmall = files - z.large.size() - nMedium;
  z.small.resize(nSmall);
  uint64_t tinySum = 0, nMid = 0;
  for (Slot& s : z.small) {
    const double u = r.unit();
    if (u < 0.02) {
      s = {Cls::Empty, 0};
    } else if (u < 0.70) {
      s = {Cls::Tiny, logUniform(r, kTinyMin, kTinyEnd)};
      tinySum += s.size;
    } else {
      s = {Cls::Mid, 0};
      ++nMid;
    }
  }
  // The 4-100 KiB files carry what the tiny ones leave: pick the top of their
  // log-uniform range so that the mean fits, then draw them.
  double top = double(kSmallEnd);
  if (nMid) {
    const double need = z.smallTarget > tinySum ? double(z.smallTarget - tinySum) / double(nMid) : 0.0;
    const double lo = double(kTinyEnd);
    if (need <= logUniformMean(lo, lo + 1)) {
      top = lo + 1;
    } else if (need < logUniformMean(lo, double(kSmallEnd))) {
      double a = lo + 1, b = double(kSmallEnd);
      for (int i = 0; i < 60; ++i) {
        const double m = (a + b) / 2;
        (logUniformMean(lo, m) < need ? a : b) = m;
      }
      top = b;
    }
  }
  for (Slot& s : z.small)
    if (s.cls == Cls::Mid) s.size = logUniform(r, kTinyEnd, std::max<uint64_t>(kTinyEnd + 1, uint64_t(top)));
  return z;
}

// Moves the sizes of files[idx] toward target, each within its [lo, hi], and
// returns what is left over (target minus what was reached).
int64_t fitSizes(std::vector<FilePlan>& files, const std::vector<size_t>& idx, uint64_t target) {
  auto total = [&] {
    uint64_t sum = 0;
    for (size_t i : idx) sum += files[i].size;
    return sum;
  };
  for (size_t i : idx) files[i].size = std::clamp(files[i].size, files[i].lo, files[i].hi);
  for (int round = 0; round < 40; ++round) {
    const uint64_t sum = total();
    if (sum == target) return 0;
    const bool up = sum < target;
    uint64_t movable = 0, fixed = 0;
    for (size_t i : idx) {
      const FilePlan& f = files[i];
      ((up ? f.size < f.hi : f.size > f.lo) ? movable : fixed) += f.size;
    }
    if (movable == 0) break;
    const double factor = target > fixed ? double(target - fixed) / double(movable) : 0.0;
    bool changed = false;
    for (size_t i : idx) {
      FilePlan& f = files[i];
      if (up ? f.size >= f.hi : f.size <= f.lo) continue;
      const double v = rounded(double(f.size) * factor) + 0.5;
      const uint64_t n = v >= double(f.hi) ? f.hi : std::clamp(uint64_t(v), f.lo, f.hi);
      changed |= n != f.size;
      f.size = n;
    }
    if (!changed) break;
  }
  // Rounding leaves a few bytes: hand them out a little per file.
  uint64_t sum = total();
  for (int pass = 0; pass < 64 && sum != target; ++pass) {
    const bool up = sum < target;
    uint64_t movableFiles = 0;
    for (size_t i : idx) movableFiles += up ? files[i].size < files[i].hi : files[i].size > files[i].lo;
    if (movableFiles == 0) break;
    const uint64_t gap = up ? target - sum : sum - target;
    const uint64_t step = std::max<uint64_t>(1, (gap + movableFiles - 1) / movableFiles);
    for (size_t i : idx) {
      if (sum == target) break;
      FilePlan& f = files[i];
      const uint64_t left = up ? target - sum : sum - target;
      if (up) {
        const uint64_t d = std::min({step, f.hi - f.size, left});
        f.size += d;
        sum += d;
      } else {
        const uint64_t d = std::min({step, f.size - f.lo, left});
        f.size -= d;
        sum -= d;
      }
    }
  }
  return int64_t(target) - int64_t(sum);
}

// Sets each file's bounds from its class and kind, then its size so that the
// total is the one asked for.  Returns false when FILES and BYTES could only
// be met by leaving the class bounds.
bool settleSizes(Home& h, const Sizes& z) {
  std::vector<size_t> small, medium, large;
  for (size_t i = 0; i < h.files.size(); ++i) {
    FilePlan& f = h.files[i];
    const uint64_t least = minimumSize(f.kind, h.seed, i);
    switch (f.cls) {
      case Cls::Empty: f.lo = f.hi = f.size = 0; break;
      case Cls::Tiny: f.lo = std::max<uint64_t>(1, least); f.hi = kTinyEnd - 1; small.push_back(i); break;
      case Cls::Mid: f.lo = std::max(kTinyEnd, least); f.hi = kSmallEnd - 1; small.push_back(i); break;
      case Cls::Medium: f.lo = kMediumMin; f.hi = kMediumMax; medium.push_back(i); break;
      case Cls::Large: f.lo = f.hi = f.size; large.push_back(i); break;
    }
    f.lo = std::min(f.lo, f.hi);
  }
  int64_t off = fitSizes(h.files, small, z.smallTarget);
  if (!medium.empty()) {
    const int64_t t = std::max<int64_t>(0, int64_t(z.mediumTarget) + off);
    off = int64_t(z.mediumTarget) + off - t + fitSizes(h.files, medium, uint64_t(t));
  }
  if (off == 0) return true;
  // Out of bounds: stretch the biggest files, or shrink everything to its minimum.
  std::vector<size_t> all;
  if (off > 0) {
    all = medium;
    all.insert(all.end(), large.begin(), large.end());
    if (all.empty()) all = small;
    for (size_t i : all) h.files[i].hi = UINT64_MAX / 4;
  } else {
    all = small;
    all.insert(all.end(), medium.begin(), medium.end());
    for (size_t i : all) h.files[i].lo = std::max<uint64_t>(1, minimumSize(h.files[i].kind, h.seed, i));
  }
  uint64_t sum = 0;
  for (size_t i : all) sum += h.files[i].size;
  fitSizes(h.files, all, uint64_t(std::max<int64_t>(0, int64_t(sum) + off)));
  return false;
}

// Shares n out in proportion to the weights (largest remainders first).
std::vector<size_t> apportion(size_t n, const std::vector<uint32_t>& w) {
  uint64_t total = 0;
  for (uint32_t x : w) total += x;
  std::vector<size_t> out(w.size(), 0);
  if (total == 0) return out;
  std::vector<std::pair<uint64_t, size_t>> rem;
  size_t given = 0;
  for (size_t i = 0; i < w.size(); ++i) {
    out[i] = size_t(uint64_t(n) * w[i] / total);
    given += out[i];
    rem.emplace_back(uint64_t(n) * w[i] % total, i);
  }
  std::stable_sort(rem.begin(), rem.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  for (size_t i = 0; given < n; ++i, ++given) ++out[rem[i % rem.size()].second];
  return out;
}

void shuffle(std::vector<Slot>& v, Rng& r) {
  for (size_t i = v.size(); i > 1; --i) std::swap(v[i - 1], v[r.below(i)]);
}

// ---------------------------------------------------------------------------
// Contents

void words(Rng& r, std::string& o, int n) {
  for (int i = 0; i < n; ++i) {
    if (i) o += ' ';
    o.append(r.pick(kWords));
  }
}

void upper(std::string& o, std::string_view w) {
  for (char c : w) o += (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c;
}

void proseLine(Rng& r, std::string& o) {
  if (r.below(7) == 0) {
    o += '\n';
    return;
  }
  const size_t start = o.size();
  const size_t width = 50 + r.below(26);
  bool cap = r.below(3) == 0;
  while (o.size() - start < width) {
    if (o.size() != start) o += ' ';
    if (cap)
      appendCap(o, r.pick(kWords));
    else
      o.append(r.pick(kWords));
    cap = false;
    const uint64_t p = r.below(12);
    if (p == 0) {
      o += '.';
      cap = true;
    } else if (p == 1) {
      o += ',';
    }
  }
  o += '\n';
}

void codeLine(Rng& r, std::string& o) {
  const std::string_view a = r.pick(kIdents), b = r.pick(kIdents), c = r.pick(kIdents);
  const std::string n = std::to_string(r.below(4096));
  switch (r.below(14)) {
    case 0: o += cat("#include <", a, ".h>\n"); break;
    case 1: o += cat("static int ", a, "_", b, "(struct ", c, " *", a, ", size_t n)\n{\n"); break;
    case 2: o += cat("    if (", a, " == NULL)\n        return -EINVAL;\n"); break;
    case 3:
      o += cat("    for (size_t i = 0; i < n; ++i) {\n        ", a, "[i] = ", b, "_", c, "(", a, ", i);\n    }\n");
      break;
    case 4: o += cat("    return ", a, ";\n}\n\n"); break;
    case 5: o += "/* "; words(r, o, r.range(4, 12)); o += " */\n"; break;
    case 6: o += '\n'; break;
    case 7: o += cat("    const size_t ", a, "_", b, " = ", n, ";\n"); break;
    case 8: o += "    // TODO: "; words(r, o, r.range(3, 9)); o += '\n'; break;
    case 9: o += "#define "; upper(o, a); o += '_'; upper(o, b); o += cat(" ", n, "\n"); break;
    case 10: o += cat("    ", a, "->", b, " = ", c, ";\n"); break;
    case 11: o += cat("struct ", a, "_", b, " {\n    int ", c, ";\n    char *", a, ";\n};\n\n"); break;
    case 12: o += cat("        ", a, "(", b, ", ", c, ");\n"); break;
    default: o += cat("    } else {\n        ", a, " = ", n, ";\n    }\n"); break;
  }
}

void scriptLine(Rng& r, std::string& o) {
  const std::string_view a = r.pick(kIdents), b = r.pick(kIdents), c = r.pick(kIdents);
  const std::string n = std::to_string(r.below(1000));
  switch (r.below(11)) {
    case 0: o += cat("def ", a, "_", b, "(", c, ", n):\n"); break;
    case 1: o += cat("    return ", c, " + ", n, "\n"); break;
    case 2: o += "# "; words(r, o, r.range(3, 10)); o += '\n'; break;
    case 3: o += cat("import ", a, "\n"); break;
    case 4: o += cat("    ", a, " = ", b, "_", c, "(", a, ")\n"); break;
    case 5:
      o += cat("if [ -f \"$HOME/.", a, "\" ]; then\n    echo \"");
      words(r, o, r.range(2, 6));
      o += "\"\nfi\n";
      break;
    case 6: o += '\n'; break;
    case 7: o += "export "; upper(o, a); o += '_'; upper(o, b); o += cat("=\"", c, "\"\n"); break;
    case 8: o += cat("for ", a, " in $(ls ", b, "); do\n    ", c, " \"$", a, "\"\ndone\n"); break;
    case 9:
      o += cat("    if ", a, " is None:\n        raise ValueError(\"");
      words(r, o, r.range(2, 6));
      o += "\")\n";
      break;
    default: o += cat("alias ", a, "='", b, " -", c.substr(0, 1), "'\n"); break;
  }
}

void configLine(Rng& r, std::string& o) {
  const std::string_view a = r.pick(kIdents), b = r.pick(kIdents);
  const uint64_t u = r.below(10);
  if (u == 0) {
    o += cat("\n[", a, "]\n");
    return;
  }
  if (u == 1) {
    o += "# ";
    words(r, o, r.range(3, 10));
    o += '\n';
    return;
  }
  o += cat(a, "_", b, " = ");
  switch (r.below(4)) {
    case 0: o += std::to_string(r.below(100000)); break;
    case 1: o += r.chance(0.5) ? "true" : "false"; break;
    case 2: o += '"'; words(r, o, r.range(1, 5)); o += '"'; break;
    default: o += cat("/home/user/", r.pick(kIdents), "/", r.pick(kIdents)); break;
  }
  o += '\n';
}

void markupLine(Rng& r, std::string& o) {
  const std::string_view a = r.pick(kIdents), b = r.pick(kIdents);
  switch (r.below(5)) {
    case 0: o += "<p>"; words(r, o, r.range(5, 15)); o += "</p>\n"; break;
    case 1: o += cat("<div class=\"", a, "-", b, "\">\n"); break;
    case 2: o += "</div>\n"; break;
    case 3:
      o += cat("<li><a href=\"https://example.org/", a, "/", b, "\">");
      words(r, o, r.range(1, 4));
      o += "</a></li>\n";
      break;
    default:
      o += cat("<bookmark href=\"file:///home/user/Documents/", a, ".pdf\" visited=\"",
               isoDate(kT0 + int64_t(r.below(uint64_t(kT1 - kT0)))), "\"/>\n");
      break;
  }
}

void historyLine(Rng& r, std::string& o) {
  const std::string_view a = r.pick(kIdents), b = r.pick(kIdents);
  switch (r.below(12)) {
    case 0: o += "ls -la\n"; break;
    case 1: o += cat("cd ~/src/", r.pick(kProjects), "\n"); break;
    case 2: o += "git status\n"; break;
    case 3: o += "git commit -m \""; words(r, o, r.range(2, 7)); o += "\"\n"; break;
    case 4: o += "make -j2\n"; break;
    case 5: o += cat("vim ", a, "_", b, ".c\n"); break;
    case 6: o += cat("ssh ", a, ".", r.pick(kDomains), "\n"); break;
    case 7: o += "sudo apt update\n"; break;
    case 8: o += cat("grep -rn ", a, " .\n"); break;
    case 9: o += cat("python3 ", a, ".py --", b, "\n"); break;
    case 10: o += "du -sh *\n"; break;
    default: o += cat("man ", a, "\n"); break;
  }
}

void base64Line(Rng& r, std::string& o) {
  static constexpr char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int i = 0; i < 64; ++i) {
    o += kB64[r.next() >> 58];
  }
  o += '\n';
}

void jsonItem(Rng& r, std::string& o, int n) {
  o += cat("  \"", r.pick(kIdents), "_", r.pick(kIdents), "_", std::to_string(n), "\": ");
  switch (r.below(5)) {
    case 0: o += std::to_string(r.below(1000000)); break;
    case 1: o += '"'; words(r, o, r.range(1, 6)); o += '"'; break;
    case 2: o += r.chance(0.5) ? "true" : "false"; break;
    case 3: o += "null"; break;
    default: o += format("[%d, %d, %d]", r.range(0, 99), r.range(0, 99), r.range(0, 99)); break;
  }
  o += ",\n";
}

void plistItem(Rng& r, std::string& o, int n) {
  static constexpr std::string_view kPrefix[] = {"NS", "Mail", "Apple", "", "com.apple."};
  o += cat("\t<key>", r.pick(kPrefix), capitalized(r.pick(kIdents)), capitalized(r.pick(kIdents)), std::to_string(n),
           "</key>\n\t");
  switch (r.below(6)) {
    case 0: o += "<string>"; words(r, o, r.range(1, 6)); o += "</string>\n"; break;
    case 1: o += cat("<integer>", std::to_string(r.below(100000)), "</integer>\n"); break;
    case 2: o += r.chance(0.5) ? "<true/>\n" : "<false/>\n"; break;
    case 3: o += cat("<date>", isoDate(kT0 + int64_t(r.below(uint64_t(kT1 - kT0)))), "</date>\n"); break;
    case 4: o += cat("<string>", uuid(r), "</string>\n"); break;
    default:
      o += "<array>\n\t\t<string>";
      words(r, o, r.range(1, 3));
      o += "</string>\n\t\t<string>";
      words(r, o, r.range(1, 3));
      o += "</string>\n\t</array>\n";
      break;
  }
}

void mailHeaders(Rng& r, std::string& o, int64_t mtimeNs) {
  const std::string_view fromFirst = r.pick(kFirst), fromLast = r.pick(kLast), toFirst = r.pick(kFirst);
  const std::string_view domain = r.pick(kDomains);
  const std::string date = mailDate(mtimeNs / 1000000000);
  o += cat("Return-Path: <", r.pick(kIdents), "@", domain, ">\n");
  o += cat("Received: from mail.", domain, " (mail.", domain, " [192.0.2.", std::to_string(r.below(255)),
           "])\n\tby mx.example.net with ESMTPS id ", hex(r, 12), ";\n\t", date, "\n");
  o += cat("From: ", fromFirst, " ", fromLast, " <", r.pick(kIdents), ".", r.pick(kIdents), "@", domain, ">\n");
  o += cat("To: ", toFirst, " <", r.pick(kIdents), "@", r.pick(kDomains), ">\n");
  o += r.chance(0.4) ? "Subject: Re: " : "Subject: ";
  appendCap(o, r.pick(kWords));
  o += ' ';
  words(r, o, r.range(1, 6));
  o += cat("\nDate: ", date, "\nMessage-ID: <", hex(r, 16), "@", domain, ">\n");
  o += "MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n";
  o += cat("Hello ", toFirst, ",\n\n");
}

// Trims o to exactly size bytes, ending in a newline and never cutting a UTF-8
// sequence in two.
void finish(std::string& o, uint64_t size) {
  if (o.size() == size) return;
  if (size == 0) {
    o.clear();
    return;
  }
  size_t cut = std::min<size_t>(size - 1, o.size());
  while (cut > 0 && cut < o.size() && (static_cast<unsigned char>(o[cut]) & 0xC0) == 0x80) --cut;
  o.resize(cut);
  o.resize(size - 1, ' ');
  o += '\n';
}

// Exactly f.size bytes of text for file number id.
void makeText(const FilePlan& f, size_t id, uint64_t seed, std::string& o) {
  Rng r(mix(seed, uint64_t(id) * 2 + 1));
  o.clear();
  o.reserve(f.size + 512);
  o += headerLine(f.kind, seed, id);
  const uint64_t size = f.size;
  switch (f.kind) {
    case Kind::Json:
    case Kind::Plist: {
      const bool json = f.kind == Kind::Json;
      const std::string_view closing = json ? kJsonClosing : kPlistClosing;
      if (!json) o += kPlistPreamble;
      std::string item;
      for (int n = 0; o.size() + closing.size() < size; ++n) {
        item.clear();
        json ? jsonItem(r, item, n) : plistItem(r, item, n);
        if (o.size() + item.size() + closing.size() > size) break;
        o += item;
      }
      if (o.size() + closing.size() <= size) {
        o.append(size - o.size() - closing.size(), ' ');
        o += closing;
        return;
      }
      break;  // too small for the frame; finish() cuts it down
    }
    case Kind::Mail:
      mailHeaders(r, o, f.mtime);
      while (o.size() < size) {
        if (r.below(6) == 0) o += "> ";
        proseLine(r, o);
      }
      break;
    case Kind::Code: while (o.size() < size) codeLine(r, o); break;
    case Kind::Script: while (o.size() < size) scriptLine(r, o); break;
    case Kind::Config: while (o.size() < size) configLine(r, o); break;
    case Kind::Markup: while (o.size() < size) markupLine(r, o); break;
    case Kind::History: while (o.size() < size) historyLine(r, o); break;
    case Kind::Base64: while (o.size() < size) base64Line(r, o); break;
    case Kind::Prose:
    case Kind::Binary: while (o.size() < size) proseLine(r, o); break;
  }
  finish(o, size);
}

// ---------------------------------------------------------------------------
// Writing

std::mutex gErrorMutex;
std::string gError;
std::atomic<bool> gFailed{false};

void fail(const std::string& what, const std::string& path) {
  const int e = errno;
  const std::lock_guard<std::mutex> lock(gErrorMutex);
  if (!gFailed.exchange(true)) gError = cat(what, " ", path, ": ", std::strerror(e));
}

bool writeAll(int fd, const char* p, size_t n) {
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += w;
    n -= size_t(w);
  }
  return true;
}

timespec fromNanoseconds(int64_t ns) { return {time_t(ns / 1000000000), long(ns % 1000000000)}; }

class Writer {
 public:
  Writer(const Home& h, const std::string& root) : h_(h), root_(root), words_(kChunk / 8) {}

  void write(size_t id) {
    const FilePlan& f = h_.files[id];
    const DirPlan& d = h_.dirs[size_t(f.dir)];
    const std::string path = d.path.empty() ? cat(root_, "/", f.name) : cat(root_, "/", d.path, "/", f.name);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return fail("cannot create", path);
    bool ok = ::fchmod(fd, f.mode) == 0;
    if (ok && f.size > 0) ok = f.kind == Kind::Binary ? writeBinary(fd, id, f.size) : writeText(fd, f, id);
    if (ok) {
      const timespec ts[2] = {fromNanoseconds(f.mtime), fromNanoseconds(f.mtime)};
      ok = ::futimens(fd, ts) == 0;  // utimensat on the open file
    }
    if (!ok) fail("cannot write", path);
    ::close(fd);
  }

 private:
  static constexpr size_t kChunk = 1 << 20;

  bool writeBinary(int fd, size_t id, uint64_t size) {
    Rng r(mix(h_.seed, uint64_t(id) * 2));
    const std::string header = headerLine(Kind::Binary, h_.seed, id);
    bool first = true;
    while (size > 0) {
      const size_t n = size_t(std::min<uint64_t>(size, kChunk));
      const size_t nWords = (n + 7) / 8;
      for (size_t i = 0; i < nWords; ++i) words_[i] = r.next();
      char* bytes = reinterpret_cast<char*>(words_.data());
      if (first) std::memcpy(bytes, header.data(), std::min(header.size(), n));
      first = false;
      if (!writeAll(fd, bytes, n)) return false;
      size -= n;
    }
    return true;
  }

  bool writeText(int fd, const FilePlan& f, size_t id) {
    makeText(f, id, h_.seed, text_);
    return writeAll(fd, text_.data(), text_.size());
  }

  const Home& h_;
  const std::string& root_;
  std::vector<uint64_t> words_;
  std::string text_;
};

// ---------------------------------------------------------------------------
// Command line

[[noreturn]] void usage(const char* error = nullptr) {
  if (error) std::fprintf(stderr, "skerrow_make_home: %s\n", error);
  std::fprintf(stderr, "usage: skerrow_make_home [-n FILES] [-b BYTES] [-s SEED] [-q] TARGET_DIR\n");
  std::exit(2);
}

bool parseCount(const char* s, uint64_t& out) {
  if (!*s) return false;
  uint64_t v = 0;
  for (; *s; ++s) {
    if (*s < '0' || *s > '9') return false;
    const uint64_t digit = uint64_t(*s - '0');
    if (v > (UINT64_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  out = v;
  return true;
}

// "1500000", "20M", "1.5G", "512KiB".
bool parseBytes(std::string_view s, uint64_t& out) {
  uint64_t whole = 0, frac = 0, fracScale = 1;
  size_t i = 0;
  bool digits = false;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i, digits = true) {
    if (whole > (uint64_t(1) << 50)) return false;
    whole = whole * 10 + uint64_t(s[i] - '0');
  }
  if (i < s.size() && s[i] == '.') {
    for (++i; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i, digits = true) {
      if (fracScale < 1000000000) {
        frac = frac * 10 + uint64_t(s[i] - '0');
        fracScale *= 10;
      }
    }
  }
  if (!digits) return false;
  uint64_t mult = 1;
  if (i < s.size()) {
    switch (s[i]) {
      case 'k': case 'K': mult = KiB; break;
      case 'm': case 'M': mult = MiB; break;
      case 'g': case 'G': mult = GiB; break;
      case 't': case 'T': mult = GiB * 1024; break;
      case 'b': case 'B': break;
      default: return false;
    }
    ++i;
    const std::string_view rest = s.substr(i);
    if (!(rest.empty() || rest == "B" || rest == "iB" || rest == "b")) return false;
  }
  if (whole > (uint64_t(1) << 62) / mult) return false;
  out = whole * mult + frac * mult / fracScale;
  return true;
}

bool prepareTarget(const std::string& target) {
  struct stat st;
  if (::lstat(target.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode)) {
      std::fprintf(stderr, "skerrow_make_home: %s exists and is not a folder\n", target.c_str());
      return false;
    }
    DIR* dir = ::opendir(target.c_str());
    if (!dir) {
      std::fprintf(stderr, "skerrow_make_home: cannot read %s: %s\n", target.c_str(), std::strerror(errno));
      return false;
    }
    bool empty = true;
    while (const dirent* e = ::readdir(dir))
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) empty = false;
    ::closedir(dir);
    if (!empty) {
      std::fprintf(stderr, "skerrow_make_home: %s is not empty\n", target.c_str());
      return false;
    }
    return true;
  }
  std::error_code ec;
  std::filesystem::create_directories(target, ec);
  if (ec) {
    std::fprintf(stderr, "skerrow_make_home: cannot create %s: %s\n", target.c_str(), ec.message().c_str());
    return false;
  }
  return true;
}

double secondsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t nFiles = 100000, bytes = GiB + GiB / 2, seed = 1;
  bool quiet = false;
  for (int opt; (opt = ::getopt(argc, argv, "n:b:s:qh")) != -1;) {
    switch (opt) {
      case 'n':
        if (!parseCount(optarg, nFiles) || nFiles == 0 || nFiles > 100000000) usage("-n wants a count from 1 up");
        break;
      case 'b':
        if (!parseBytes(optarg, bytes)) usage("-b wants a size such as 20M or 1.5G");
        break;
      case 's':
        if (!parseCount(optarg, seed)) usage("-s wants a non-negative number");
        break;
      case 'q': quiet = true; break;
      default: usage();
    }
  }
  if (optind + 1 != argc) usage("one TARGET_DIR, please");
  std::string target = argv[optind];
  while (target.size() > 1 && target.back() == '/') target.pop_back();

  const auto started = std::chrono::steady_clock::now();
  if (!prepareTarget(target)) return 1;

  // Plan the whole tree first; nothing below depends on the order the
  // files are written in.
  Home h(seed);
  Rng sizeRng(mix(seed, 0x53495A45));
  Sizes z = drawSizes(nFiles, bytes, sizeRng);

  for (const char* top : {"Desktop", "Documents", "Downloads", "Library/Application Support", "Library/Preferences",
                          "Movies", "Music", "Pictures", "src", ".config", ".local/share"})
    h.dirAt(top);
  h.dirAt("Library/Mail", 0700);
  h.dirAt(".cache", 0700);
  h.dirAt(".ssh", 0700);

  size_t next = 0;
  h.buildFixed(z.small, next);

  enum Area { Src, Cache, Mail, Docs, Pics, Music, Movies, Config, Prefs, AppSupport, Desktop, Downloads, kAreas };
  const std::vector<uint32_t> smallWeights = {280, 180, 200, 70, 40, 15, 5, 70, 15, 60, 15, 20};
  const std::vector<uint32_t> mediumWeights = {0, 0, 0, 120, 450, 300, 60, 0, 0, 10, 10, 50};
  std::vector<std::vector<Slot>> area(kAreas);
  {
    const std::vector<size_t> counts = apportion(z.small.size() - next, smallWeights);
    for (size_t a = 0; a < kAreas; ++a)
      for (size_t k = 0; k < counts[a]; ++k) area[a].push_back(z.small[next++]);
    const std::vector<size_t> mediumCounts = apportion(z.medium.size(), mediumWeights);
    size_t m = 0;
    for (size_t a = 0; a < kAreas; ++a)
      for (size_t k = 0; k < mediumCounts[a]; ++k) area[a].push_back(z.medium[m++]);
    for (size_t k = 0; k < z.large.size(); ++k) area[k % 2 == 0 ? Movies : Docs].push_back(z.large[k]);
    for (std::vector<Slot>& v : area) shuffle(v, h.r);
  }
  h.buildSrc(area[Src]);
  h.buildCache(area[Cache]);
  h.buildMail(area[Mail]);
  h.buildDocuments(area[Docs]);
  h.buildPictures(area[Pics]);
  h.buildMusic(area[Music]);
  h.buildMovies(area[Movies]);
  h.buildConfig(area[Config]);
  h.buildPreferences(area[Prefs]);
  h.buildAppSupport(area[AppSupport]);
  h.buildDesktop(area[Desktop]);
  h.buildDownloads(area[Downloads]);
  h.buildLinks(std::max<size_t>(3, size_t((nFiles + 500) / 1000)));
  h.buildEmptyFolders();
  h.settleFolderTimes();
  const bool withinBounds = settleSizes(h, z);
  const double planSeconds = secondsSince(started);

  uint64_t total = 0, empties = 0;
  size_t counts[5] = {};
  for (const FilePlan& f : h.files) {
    total += f.size;
    ++counts[size_t(f.cls)];
    empties += f.size == 0;
  }
  if (!withinBounds)
    std::fprintf(stderr,
                 "skerrow_make_home: warning: %llu files and %llu bytes do not fit the size classes; "
                 "sizes were stretched as far as they go (total %llu bytes)\n",
                 (unsigned long long)nFiles, (unsigned long long)bytes, (unsigned long long)total);

  // Folders, then the files on all cores, then links, then the folders' times
  // from the deepest up (writing into a folder would move its time again).
  for (size_t d = 1; d < h.dirs.size(); ++d) {
    const std::string path = cat(target, "/", h.dirs[d].path);
    if (::mkdir(path.c_str(), 0700) != 0 || ::chmod(path.c_str(), h.dirs[d].mode) != 0) {
      std::fprintf(stderr, "skerrow_make_home: cannot make %s: %s\n", path.c_str(), std::strerror(errno));
      return 1;
    }
  }
  if (::chmod(target.c_str(), 0755) != 0) {
    std::fprintf(stderr, "skerrow_make_home: cannot chmod %s: %s\n", target.c_str(), std::strerror(errno));
    return 1;
  }

  std::vector<size_t> order(h.files.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {  // biggest first, so no thread is left with one
    return h.files[a].size != h.files[b].size ? h.files[a].size > h.files[b].size : a < b;
  });
  std::atomic<size_t> cursor{0};
  const unsigned nThreads = std::clamp(std::thread::hardware_concurrency(), 1u, 8u);
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < nThreads; ++t)
    threads.emplace_back([&] {
      Writer w(h, target);
      for (size_t i; !gFailed && (i = cursor.fetch_add(1)) < order.size();) w.write(order[i]);
    });
  for (std::thread& t : threads) t.join();
  if (gFailed) {
    std::fprintf(stderr, "skerrow_make_home: %s\n", gError.c_str());
    return 1;
  }

  for (const LinkPlan& l : h.links) {
    const DirPlan& d = h.dirs[size_t(l.dir)];
    const std::string path = d.path.empty() ? cat(target, "/", l.name) : cat(target, "/", d.path, "/", l.name);
    const timespec ts[2] = {fromNanoseconds(l.mtime), fromNanoseconds(l.mtime)};
    if (::symlink(l.target.c_str(), path.c_str()) != 0 ||
        ::utimensat(AT_FDCWD, path.c_str(), ts, AT_SYMLINK_NOFOLLOW) != 0) {
      std::fprintf(stderr, "skerrow_make_home: cannot link %s: %s\n", path.c_str(), std::strerror(errno));
      return 1;
    }
  }
  size_t emptyDirs = 0;
  for (size_t d = h.dirs.size(); d-- > 0;) {
    const std::string path = d == 0 ? target : cat(target, "/", h.dirs[d].path);
    const timespec ts[2] = {fromNanoseconds(h.dirs[d].mtime), fromNanoseconds(h.dirs[d].mtime)};
    if (::utimensat(AT_FDCWD, path.c_str(), ts, AT_SYMLINK_NOFOLLOW) != 0) {
      std::fprintf(stderr, "skerrow_make_home: cannot set the time of %s: %s\n", path.c_str(), std::strerror(errno));
      return 1;
    }
    emptyDirs += h.dirs[d].taken.empty();
  }

  if (!quiet) {
    const double seconds = secondsSince(started);
    std::printf(
        "skerrow_make_home: made %zu files holding %llu bytes (%.2f GiB; %zu large, %zu medium, %zu small of "
        "which %llu empty) in %zu folders (%zu of them empty) with %zu symbolic links under %s, seed %llu, "
        "in %.1f s (planning %.1f s, writing %.1f s, %u threads).\n",
        h.files.size(), (unsigned long long)total, double(total) / double(GiB), counts[size_t(Cls::Large)],
        counts[size_t(Cls::Medium)], counts[size_t(Cls::Empty)] + counts[size_t(Cls::Tiny)] + counts[size_t(Cls::Mid)],
        (unsigned long long)empties, h.dirs.size() - 1, emptyDirs, h.links.size(), target.c_str(),
        (unsigned long long)seed, seconds, planSeconds, seconds - planSeconds, nThreads);
  }
  return 0;
}
