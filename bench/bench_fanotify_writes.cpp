// What reporting writes (FAN_MODIFY) costs: another process writes a big
// file in small writes (dd, 4 KiB blocks by default) into a watched folder
// while a reader takes the events as the watcher's thread does, and the
// run is timed three ways, interleaved: with no watcher, with a watcher that
// leaves writes out, and with one that reports them.  For each it prints dd's
// wall time, the reader's CPU time, how many records the kernel queued for
// the reader (after its merging) and how many reads took them, then the
// medians over the runs.
//
//   skerrow_bench_fanotify_writes FOLDER [MEGABYTES=1024] [RUNS=5] [BLOCK=4k]
//
// FOLDER must lie on a file system fanotify can watch by handle (ext4,
// tmpfs); needs root.  The file is removed after each run.
#include <pthread.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/FanotifyEventSource.h"

extern char** environ;

namespace {

struct Figures {
  double ddSeconds = 0;
  double readerCpuSeconds = 0;
  uint64_t records = 0;
  uint64_t reads = 0;
  uint64_t modified = 0;
};

double threadCpuSeconds() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Runs dd and answers its wall time in seconds (negative when it failed).
double runDd(const std::string& file, int megabytes, const std::string& block) {
  const long blockBytes = block.back() == 'k' ? std::atol(block.c_str()) * 1024 : std::atol(block.c_str());
  const long count = static_cast<long>(megabytes) * 1024 * 1024 / blockBytes;
  std::vector<std::string> args = {"dd", "if=/dev/zero", "of=" + file, "bs=" + block, "count=" + std::to_string(count),
                                   "status=none"};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid;
  if (::posix_spawnp(&pid, "dd", nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  ::waitpid(pid, &status, 0);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ::unlink(file.c_str());
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : -1;
}

Figures measure(const std::string& folder, int megabytes, const std::string& block, int mode) {
  Figures figures;
  const std::string file = folder + "/bench-writes.bin";
  if (mode == 0) {
    figures.ddSeconds = runDd(file, megabytes, block);
    return figures;
  }
  platform::FanotifyEventSource source(platform::FanotifyEventSource::Options{.reportWrites = mode == 2});
  std::string error;
  if (!source.open(&error) || !source.watchFolder(folder, &error)) {
    std::fprintf(stderr, "cannot watch %s: %s\n", folder.c_str(), error.c_str());
    std::exit(2);
  }
  std::atomic<uint64_t> modified{0};
  std::atomic<double> cpu{0};
  std::thread reader([&] {
    const double before = threadCpuSeconds();
    std::vector<platform::FileSystemEvent> events;
    while (source.readEvents(&events)) {
      for (const auto& e : events)
        if (e.kind == platform::FileSystemEvent::Kind::Modified) modified.fetch_add(1);
      events.clear();
    }
    cpu.store(threadCpuSeconds() - before);
  });
  figures.ddSeconds = runDd(file, megabytes, block);
  // Everything dd caused is taken before the reader is stopped.
  const uint64_t ticket = source.requestDrain();
  while (source.drained() < ticket) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  source.close();
  reader.join();
  figures.readerCpuSeconds = cpu.load();
  figures.records = source.recordsRead();
  figures.reads = source.readsMade();
  figures.modified = modified.load();
  return figures;
}

template <typename T>
T median(std::vector<T> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FOLDER [MEGABYTES=1024] [RUNS=5] [BLOCK=4k]\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  const int megabytes = argc > 2 ? std::atoi(argv[2]) : 1024;
  const int runs = argc > 3 ? std::atoi(argv[3]) : 5;
  const std::string block = argc > 4 ? argv[4] : "4k";
  const char* names[] = {"no watcher", "watcher without writes", "watcher with writes"};
  std::vector<Figures> results[3];
  for (int run = 0; run < runs; ++run)
    for (int mode = 0; mode < 3; ++mode) {
      const Figures f = measure(folder, megabytes, block, mode);
      if (f.ddSeconds < 0) {
        std::fprintf(stderr, "dd failed\n");
        return 1;
      }
      results[mode].push_back(f);
      std::printf("run %d  %-24s dd %.3f s  reader cpu %.4f s  records %llu  reads %llu  modified %llu\n", run + 1,
                  names[mode], f.ddSeconds, f.readerCpuSeconds, static_cast<unsigned long long>(f.records),
                  static_cast<unsigned long long>(f.reads), static_cast<unsigned long long>(f.modified));
      std::fflush(stdout);
    }
  std::printf("\nmedians of %d runs, %d MiB in %s writes:\n", runs, megabytes, block.c_str());
  for (int mode = 0; mode < 3; ++mode) {
    std::vector<double> dd, cpu;
    std::vector<uint64_t> records, reads, modified;
    for (const auto& f : results[mode]) {
      dd.push_back(f.ddSeconds);
      cpu.push_back(f.readerCpuSeconds);
      records.push_back(f.records);
      reads.push_back(f.reads);
      modified.push_back(f.modified);
    }
    std::printf("%-24s dd %.3f s  reader cpu %.4f s  records %llu  reads %llu  modified events %llu\n", names[mode],
                median(dd), median(cpu), static_cast<unsigned long long>(median(records)),
                static_cast<unsigned long long>(median(reads)), static_cast<unsigned long long>(median(modified)));
  }
  return 0;
}
