// skerrow_bench_realtime: the two sides of the continuous-backup benchmark.
//
//   skerrow_bench_realtime saves HOME BACKUP COUNT PER_SECOND BYTES
//     Picks 100 folders of HOME (every folder that the backup BACKUP already
//     mirrors, sorted, taken evenly) and saves a file "bench-K.dat" of BYTES
//     bytes in one of them COUNT times, PER_SECOND saves a second, in turn.
//     Each save is open/truncate, write, close.  The time from the close to
//     the moment the engine renames the file's next stored version into
//     place in BACKUP (seen with inotify) is one latency.  Prints one line:
//       saves=N stored=N missing=N p50_ms=X p99_ms=X max_ms=X
//     then, for scale, the time this program itself takes to store the same
//     file the way the engine must (copy onto the backup disk, flush, rename):
//       floor_p50_ms=X floor_p99_ms=X
//   skerrow_bench_realtime churn FOLDER COUNT SECONDS
//     Creates (a small write) and deletes COUNT files in FOLDER, spread
//     evenly over SECONDS (0: as fast as it can); prints its own CPU time:
//       churn_files=N churn_cpu_s=X
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t index = std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5));
  return values[index];
}

bool writeWhole(const std::string& path, const std::string& bytes, bool sync) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) && (!sync || ::fsync(fd) == 0);
  return ::close(fd) == 0 && ok;
}

int saves(const std::string& home, const std::string& backup, int count, double perSecond, size_t bytes) {
  // Folders the backup mirrors: their stored versions land in a folder that exists.
  std::vector<std::string> folders;
  for (auto it = fs::recursive_directory_iterator(home, fs::directory_options::skip_permission_denied);
       it != fs::recursive_directory_iterator(); ++it) {
    if (!it->is_directory() || it->is_symlink()) continue;
    const std::string relative = fs::relative(it->path(), home).string();
    if (fs::is_directory(backup + "/" + relative)) folders.push_back(relative);
  }
  std::sort(folders.begin(), folders.end());
  if (folders.empty()) {
    std::fprintf(stderr, "no folder of %s is in %s\n", home.c_str(), backup.c_str());
    return 1;
  }
  const size_t targets = std::min<size_t>(100, folders.size());
  std::vector<std::string> chosen;
  for (size_t i = 0; i < targets; ++i) chosen.push_back(folders[i * folders.size() / targets]);

  const int inotify = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  std::map<int, size_t> folderOfWatch;
  for (size_t i = 0; i < chosen.size(); ++i)
    folderOfWatch[::inotify_add_watch(inotify, (backup + "/" + chosen[i]).c_str(), IN_MOVED_TO)] = i;

  std::mt19937_64 random(1);
  std::string content(bytes, '\0');
  auto fill = [&](size_t save) {
    for (size_t i = 0; i < bytes; i += 8) {
      const uint64_t word = random() ^ save;
      std::memcpy(&content[i], &word, std::min<size_t>(8, bytes - i));
    }
  };
  // Pending saves per target: the close time of the newest save not yet seen stored.
  std::vector<std::optional<Clock::time_point>> pending(chosen.size());
  std::vector<double> latencies;
  int missing = 0;
  char buffer[65536];
  auto drain = [&] {
    for (;;) {
      const ssize_t n = ::read(inotify, buffer, sizeof buffer);
      if (n <= 0) return;
      const auto now = Clock::now();
      for (ssize_t at = 0; at < n;) {
        auto* e = reinterpret_cast<inotify_event*>(buffer + at);
        at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
        const auto it = folderOfWatch.find(e->wd);
        if (it == folderOfWatch.end() || e->len == 0 || std::strncmp(e->name, "bench-", 6) != 0) continue;
        auto& slot = pending[it->second];
        if (!slot) continue;
        latencies.push_back(std::chrono::duration<double, std::milli>(now - *slot).count());
        slot.reset();
      }
    }
  };
  const auto interval = std::chrono::duration<double>(1.0 / perSecond);
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    const auto due = start + std::chrono::duration_cast<Clock::duration>(interval * i);
    while (Clock::now() < due) {
      drain();
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const size_t target = static_cast<size_t>(i) % chosen.size();
    if (pending[target]) ++missing;  // its previous save was never seen stored
    fill(static_cast<size_t>(i));
    const std::string path = home + "/" + chosen[target] + "/bench-" + std::to_string(target) + ".dat";
    if (!writeWhole(path, content, false)) {
      std::perror(path.c_str());
      return 1;
    }
    pending[target] = Clock::now();
  }
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline && std::any_of(pending.begin(), pending.end(), [](auto& p) { return p.has_value(); })) {
    drain();
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  for (const auto& p : pending) missing += p.has_value();
  std::printf("saves=%d stored=%zu missing=%d p50_ms=%.1f p99_ms=%.1f max_ms=%.1f\n", count, latencies.size(),
              missing, percentile(latencies, 0.5), percentile(latencies, 0.99),
              latencies.empty() ? 0 : *std::max_element(latencies.begin(), latencies.end()));

  // The floor: storing the same file by hand onto the backup disk (write a
  // temporary file, flush it, rename it into place), 100 times.
  std::vector<double> floor;
  const std::string scratch = backup + "/.bench-floor";
  fs::create_directories(scratch);
  for (int i = 0; i < 100; ++i) {
    const auto t0 = Clock::now();
    writeWhole(scratch + "/tmp", content, true);
    ::rename((scratch + "/tmp").c_str(), (scratch + "/bench@" + std::to_string(i) + ".dat").c_str());
    floor.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }
  fs::remove_all(scratch);
  std::printf("floor_p50_ms=%.1f floor_p99_ms=%.1f\n", percentile(floor, 0.5), percentile(floor, 0.99));
  return 0;
}

int churn(const std::string& folder, int count, double seconds) {
  fs::create_directories(folder);
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    if (seconds > 0) {
      const auto due = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds * i / count));
      if (Clock::now() < due) std::this_thread::sleep_until(due);
    }
    const std::string path = folder + "/o" + std::to_string(i) + ".o";
    writeWhole(path, "object code", false);
    ::unlink(path.c_str());
  }
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const double cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
  std::printf("churn_files=%d churn_cpu_s=%.3f\n", count, cpu);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> a(argv + 1, argv + argc);
  if (a.size() == 6 && a[0] == "saves") return saves(a[1], a[2], std::stoi(a[3]), std::stod(a[4]), std::stoul(a[5]));
  if (a.size() == 4 && a[0] == "churn") return churn(a[1], std::stoi(a[2]), std::stod(a[3]));
  std::fprintf(stderr, "usage: %s saves HOME BACKUP COUNT PER_SECOND BYTES | churn FOLDER COUNT SECONDS\n", argv[0]);
  return 2;
}
