#include "tests/support/DaemonProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "tests/support/Eventually.h"
#include "tests/support/FileSystemImage.h"

extern char** environ;

namespace skerrow_test {

namespace {

using namespace std::chrono_literals;

// How long the destructor gives the program to exit after SIGTERM.
constexpr auto kStopTimeout = std::chrono::milliseconds(10s);
// How much of the log the destructor prints when the test has failed.
constexpr std::size_t kLogTailOnFailure = 16 * 1024;

std::string errnoText(const std::string& what, int error) {
  return what + ": " + std::strerror(error);
}

int exitStatusOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

std::string makeTempFolder() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/skerrow-process-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (!::mkdtemp(buf.data())) throw std::runtime_error(errnoText("mkdtemp " + pattern, errno));
  return buf.data();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Writes a whole buffer from the child after fork, where only
// async-signal-safe calls are allowed.
void writeAll(int fd, const char* text, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, text, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    size -= static_cast<std::size_t>(n);
  }
}

void writeText(int fd, const char* text) { writeAll(fd, text, std::strlen(text)); }

// Reports why the child could not get as far as running the program, and
// exits with 127 as a shell does.  strerrordesc_np reads a constant table,
// unlike strerror it touches neither locale nor allocator.
[[noreturn]] void childFailed(const char* what, const char* program, int error) {
  writeText(2, "skerrow_test::DaemonProcess: ");
  writeText(2, what);
  writeText(2, " ");
  writeText(2, program);
  writeText(2, ": ");
  const char* description = ::strerrordesc_np(error);
  writeText(2, description ? description : "unknown error");
  writeText(2, "\n");
  ::_exit(127);
}

}  // namespace

Environment mergeEnvironment(Environment base, const Environment& over) {
  for (const auto& [name, value] : over) base[name] = value;
  return base;
}

DaemonProcess::DaemonProcess(const std::string& program, const std::vector<std::string>& arguments,
                             Options options) {
  program_ = program.find('/') == std::string::npos ? findProgram(program).value_or("") : program;
  if (program_.empty()) throw std::runtime_error("cannot start " + program + ": not found");
  try {
    start(arguments, options);
  } catch (...) {
    cleanUp();
    throw;
  }
}

DaemonProcess::~DaemonProcess() { cleanUp(); }

void DaemonProcess::start(const std::vector<std::string>& arguments, const Options& options) {
  folder_ = makeTempFolder();
  logPath_ = folder_ + "/" + std::filesystem::path(program_).filename().string() + ".log";
  const int logFd = ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (logFd < 0) throw std::runtime_error(errnoText("open " + logPath_, errno));

  // Everything the child needs is built before fork: after it, only
  // async-signal-safe calls are allowed (the test binary may have threads).
  std::vector<std::string> argvStrings{program_};
  argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& a : argvStrings) argv.push_back(a.data());
  argv.push_back(nullptr);

  Environment inherited;
  for (char** e = environ; e && *e; ++e) {
    const std::string entry = *e;
    const auto eq = entry.find('=');
    if (eq == std::string::npos) continue;
    inherited.emplace(entry.substr(0, eq), entry.substr(eq + 1));
  }
  std::vector<std::string> envStrings;
  for (const auto& [name, value] : mergeEnvironment(std::move(inherited), options.environment)) {
    envStrings.push_back(name + "=" + value);
  }
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  const char* const programPath = program_.c_str();
  const char* const workingDirectory =
      options.workingDirectory.empty() ? nullptr : options.workingDirectory.c_str();
  const std::optional<RunAs> runAs = options.runAs;
  const pid_t parent = ::getpid();

  const pid_t pid = ::fork();
  if (pid < 0) {
    const int error = errno;
    ::close(logFd);
    throw std::runtime_error(errnoText("fork", error));
  }
  if (pid == 0) {
    // The child.  Its own process group, so that stopping reaches what it starts.
    ::setpgid(0, 0);
    const int devNull = ::open("/dev/null", O_RDONLY);
    if (devNull < 0 || ::dup2(devNull, 0) < 0) childFailed("cannot open /dev/null for", programPath, errno);
    if (::dup2(logFd, 1) < 0 || ::dup2(logFd, 2) < 0) ::_exit(127);
    ::close_range(3, ~0U, 0);
    // Signal dispositions and the mask are inherited; the program must see
    // the defaults (a test binary may block signals for its own threads).
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig = 1; sig < NSIG; ++sig) ::signal(sig, SIG_DFL);
    if (runAs) {
      if (::setgroups(0, nullptr) != 0) childFailed("setgroups for", programPath, errno);
      if (::setresgid(runAs->gid, runAs->gid, runAs->gid) != 0) childFailed("setresgid for", programPath, errno);
      if (::setresuid(runAs->uid, runAs->uid, runAs->uid) != 0) childFailed("setresuid for", programPath, errno);
    }
    // Set after the credentials change, which would clear it.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);  // the parent died before prctl
    if (workingDirectory && ::chdir(workingDirectory) != 0) childFailed("cannot chdir for", programPath, errno);
    ::execve(programPath, argv.data(), envp.data());
    childFailed("cannot execute", programPath, errno);
  }
  ::close(logFd);
  pid_ = pid;
  // Also from this side, so the group exists as soon as fork returns, even
  // when a stop comes before the child has run (an error only means the child
  // has already done it, or exec'd after doing it).
  ::setpgid(pid, pid);
}

bool DaemonProcess::reap(bool block) {
  if (exitStatus_) return true;
  if (pid_ <= 0) return false;
  // First look without reaping: while the exited leader is a zombie its pid
  // (and so its process group id) cannot be reused, so killing what is left
  // of the group cannot hit an unrelated process.
  siginfo_t info{};
  int r;
  do {
    r = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT | (block ? 0 : WNOHANG));
  } while (r < 0 && errno == EINTR);
  if (r < 0 || info.si_pid != pid_) return false;
  ::kill(-pid_, SIGKILL);
  int status = 0;
  struct rusage usage {};
  pid_t reaped;
  do {
    reaped = ::wait4(pid_, &status, 0, &usage);
  } while (reaped < 0 && errno == EINTR);
  if (reaped != pid_) return false;
  exitStatus_ = exitStatusOf(status);
  auto seconds = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6; };
  cpuSecondsAtExit_ = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  return true;
}

bool DaemonProcess::isRunning() { return !reap(false); }

std::string DaemonProcess::logText() const { return readFile(logPath_); }

std::vector<std::string> DaemonProcess::logLines() const {
  std::vector<std::string> lines;
  std::istringstream in(logText());
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

bool DaemonProcess::waitForLogLine(const std::string& substring, std::chrono::milliseconds timeout) const {
  return eventually(
      [&] {
        for (const auto& line : logLines()) {
          if (line.find(substring) != std::string::npos) return true;
        }
        return false;
      },
      timeout);
}

std::size_t DaemonProcess::countLogLines(const std::string& line) const {
  std::size_t count = 0;
  for (const auto& l : logLines()) count += l == line ? 1 : 0;
  return count;
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds timeout) {
  eventually([this] { return reap(false); }, timeout);
  return exitStatus_;
}

int DaemonProcess::stop(std::chrono::milliseconds timeout) {
  if (reap(false)) return *exitStatus_;
  ::kill(pid_, SIGTERM);
  if (!eventually([this] { return reap(false); }, timeout)) {
    ::kill(-pid_, SIGKILL);
    ::kill(pid_, SIGKILL);
    reap(true);
  }
  return exitStatus_.value_or(-1);
}

double DaemonProcess::cpuSeconds() {
  if (reap(false)) return cpuSecondsAtExit_;
  const std::string stat = readFile("/proc/" + std::to_string(pid_) + "/stat");
  // The command name (field 2) is in parentheses and may itself contain
  // spaces and parentheses, so the fields are counted from the last ')'.
  const auto close = stat.rfind(')');
  if (close == std::string::npos) {
    if (reap(false)) return cpuSecondsAtExit_;
    throw std::runtime_error("cannot read /proc/" + std::to_string(pid_) + "/stat");
  }
  std::istringstream fields(stat.substr(close + 1));
  std::vector<std::string> rest;
  std::string field;
  while (fields >> field) rest.push_back(field);
  // rest[0] is field 3 (state); utime and stime are fields 14 and 15.
  if (rest.size() < 13) throw std::runtime_error("short /proc/" + std::to_string(pid_) + "/stat: " + stat);
  const double ticks = std::stod(rest[11]) + std::stod(rest[12]);
  return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

void DaemonProcess::cleanUp() noexcept {
  try {
    if (pid_ > 0) stop(kStopTimeout);
  } catch (...) {
  }
  try {
    if (!logPath_.empty() && ::testing::Test::HasFailure()) {
      std::string log = logText();
      if (log.size() > kLogTailOnFailure) log = "...\n" + log.substr(log.size() - kLogTailOnFailure);
      std::cerr << "--- log of " << program_ << " (pid " << pid_ << ", exit status "
                << (exitStatus_ ? std::to_string(*exitStatus_) : std::string("unknown")) << ") ---\n"
                << log << (log.empty() || log.back() == '\n' ? "" : "\n") << "--- end of log ---\n";
    }
  } catch (...) {
  }
  if (!folder_.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(folder_, ec);
  }
}

}  // namespace skerrow_test
