// The source walk that builds the node tree and the tally, side by side
// with a plain single-thread readdir + statx walk of the same folder, and
// the memory the tree takes.
//
//   SKERROW_BENCH_HOME=/path/to/home build/bench/skerrow_bench_source_walk
//
// Make a home with build/tests/skerrow_make_home (-n 100000 -b 1.5G -s 1 for
// the reference figures).  The two walks run in one process, one after the
// other, over a warm page cache.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "Engine/files/FSSourceTraversal.h"
#include "Engine/files/QSBlackList.h"
#include "Engine/files/QSSourceTreeBuilder.h"

namespace {

std::string benchHome() {
  const char* home = std::getenv("SKERROW_BENCH_HOME");
  return home ? home : "";
}

// The baseline: every entry examined with statx, folders entered by descriptor.
size_t plainWalk(int dirfd) {
  size_t items = 0;
  const int dup = ::fcntl(dirfd, F_DUPFD_CLOEXEC, 0);
  DIR* stream = ::fdopendir(dup);
  if (!stream) return 0;
  while (struct dirent* e = ::readdir(stream)) {
    const char* n = e->d_name;
    if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
    struct statx sx;
    if (::statx(dirfd, n, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) continue;
    ++items;
    if (S_ISDIR(sx.stx_mode)) {
      const int child = ::openat(dirfd, n, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child >= 0) {
        items += plainWalk(child);
        ::close(child);
      }
    }
  }
  ::closedir(stream);
  return items;
}

void BM_PlainReaddirStatxWalk(benchmark::State& state) {
  const std::string home = benchHome();
  if (home.empty()) {
    state.SkipWithError("set SKERROW_BENCH_HOME to a home folder");
    return;
  }
  size_t items = 0;
  for (auto _ : state) {
    const int fd = ::open(home.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    items = plainWalk(fd);
    ::close(fd);
  }
  state.counters["items"] = static_cast<double>(items);
}
BENCHMARK(BM_PlainReaddirStatxWalk)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SourceWalkBuildingTreeAndTally(benchmark::State& state) {
  const std::string home = benchHome();
  if (home.empty()) {
    state.SkipWithError("set SKERROW_BENCH_HOME to a home folder");
    return;
  }
  QSBlackList::initialize();
  size_t files = 0;
  for (auto _ : state) {
    QSSourceTreeBuilder builder;
    FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(home, nullptr, builder);
    int64_t f = 0, b = 0;
    builder.tally()->getTotalSourceFileCount_byteCount(&f, &b);
    files = static_cast<size_t>(f);
  }
  state.counters["files"] = static_cast<double>(files);
}
BENCHMARK(BM_SourceWalkBuildingTreeAndTally)->Unit(benchmark::kMillisecond)->UseRealTime();

// Heap bytes the tree holds, per node, beside the bytes of the node names.
void BM_SourceTreeMemory(benchmark::State& state) {
  const std::string home = benchHome();
  if (home.empty()) {
    state.SkipWithError("set SKERROW_BENCH_HOME to a home folder");
    return;
  }
  QSBlackList::initialize();
  double perNode = 0, nodes = 0, pathBytes = 0, total = 0;
  for (auto _ : state) {
    state.PauseTiming();
    ::malloc_trim(0);
    const size_t before = ::mallinfo2().uordblks;
    state.ResumeTiming();
    QSSourceTreeBuilder builder;
    FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(home, nullptr, builder);
    state.PauseTiming();
    const size_t after = ::mallinfo2().uordblks;
    size_t count = 0, names = 0;
    std::function<void(const std::shared_ptr<QSFSNode>&)> visit = [&](const std::shared_ptr<QSFSNode>& n) {
      ++count;
      names += n->path().size();
      n->children().enumerate(visit);
    };
    visit(builder.root());
    total = static_cast<double>(after - before);
    nodes = static_cast<double>(count);
    pathBytes = static_cast<double>(names);
    perNode = (total - pathBytes) / nodes;
    state.ResumeTiming();
  }
  state.counters["nodes"] = nodes;
  state.counters["tree_bytes"] = total;
  state.counters["name_bytes"] = pathBytes;
  state.counters["bytes_per_node_beside_names"] = perNode;
}
BENCHMARK(BM_SourceTreeMemory)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
