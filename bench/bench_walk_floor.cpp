// The least a no-change backup pass can cost: only the kernel calls it has to
// make, with no tree built and nothing compared.  The source is walked with
// one statx per item; the backup folder with one statx per item and, for each
// stored copy, one read of its creation-date attribute (getxattrat).  Both
// walks are timed one after the other (as a pass makes them) and at the same
// time on two threads (the best any overlap could do).
//
//   skerrow_bench_walk_floor SOURCE BACKUP_FOLDER [ROUNDS]
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#ifndef __NR_getxattrat
#define __NR_getxattrat 464
#endif

namespace {

struct XattrArgs {
  uint64_t value;
  uint32_t size;
  uint32_t flags;
};

struct Counts {
  long items = 0;
  long attributes = 0;
};

std::vector<std::string> namesIn(int dirfd) {
  std::vector<std::string> names;
  DIR* stream = ::fdopendir(::fcntl(dirfd, F_DUPFD_CLOEXEC, 0));
  if (!stream) return names;
  while (const struct dirent* e = ::readdir(stream)) {
    const char* n = e->d_name;
    if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
    names.emplace_back(n);
  }
  ::closedir(stream);
  return names;
}

void walk(int dirfd, bool readAttribute, Counts* counts) {
  for (const std::string& name : namesIn(dirfd)) {
    struct statx sx;
    if (::statx(dirfd, name.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
      continue;
    ++counts->items;
    if (S_ISDIR(sx.stx_mode)) {
      const int child = ::openat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child < 0) continue;
      walk(child, readAttribute, counts);
      ::close(child);
    } else if (readAttribute && S_ISREG(sx.stx_mode)) {
      char value[64];
      XattrArgs args{reinterpret_cast<uintptr_t>(value), sizeof value, 0};
      if (::syscall(__NR_getxattrat, dirfd, name.c_str(), AT_SYMLINK_NOFOLLOW, "user.com.qsc.creation-date", &args,
                    sizeof args) > 0)
        ++counts->attributes;
    }
  }
}

double timedWalk(const char* path, bool readAttribute, Counts* counts) {
  const auto start = std::chrono::steady_clock::now();
  const int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    std::perror(path);
    std::exit(1);
  }
  walk(fd, readAttribute, counts);
  ::close(fd);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s SOURCE BACKUP_FOLDER [ROUNDS]\n", argv[0]);
    return 2;
  }
  const int rounds = argc > 3 ? std::atoi(argv[3]) : 3;
  Counts warm;
  timedWalk(argv[1], false, &warm);
  timedWalk(argv[2], true, &warm);
  double bestSerial = 1e9, bestOverlapped = 1e9;
  Counts source, backup;
  for (int round = 0; round < rounds; ++round) {
    source = backup = Counts{};
    const double s = timedWalk(argv[1], false, &source);
    const double b = timedWalk(argv[2], true, &backup);
    if (s + b < bestSerial) bestSerial = s + b;
    Counts a, c;
    const auto start = std::chrono::steady_clock::now();
    std::thread other([&] { timedWalk(argv[1], false, &a); });
    timedWalk(argv[2], true, &c);
    other.join();
    const double both = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (both < bestOverlapped) bestOverlapped = both;
  }
  std::printf("source items %ld, backup items %ld, creation dates read %ld\n", source.items, backup.items,
              backup.attributes);
  std::printf("kernel calls one walk after the other %.3f s, both walks at once %.3f s (best of %d)\n", bestSerial,
              bestOverlapped, rounds);
  return 0;
}
