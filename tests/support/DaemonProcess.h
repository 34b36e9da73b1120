// A long-running program started by a test: the engine daemon, a private
// dbus-daemon, or a small probe.
//
//  - The program runs with the given arguments and with the current
//    environment plus the given variables (which win over inherited ones).
//    Its standard input is /dev/null; its standard output and standard error
//    are both appended to one log file in a private temporary folder; it gets
//    no other descriptor of ours.
//  - Optionally it runs as another user: the child drops supplementary groups
//    (setgroups with an empty list), then sets real, effective and saved group
//    and user ids before exec.  Doing it in that order is what lets a root
//    parent give up everything; the log file is opened by the parent, so the
//    other user needs no access to it.  The program itself, its folders and
//    the working directory must be reachable by that user.
//  - The child leads its own process group, so a stop also reaches whatever
//    it started; and once the program has exited, whatever is left in its
//    group is killed when it is reaped (programs that leave the group, with
//    setsid for instance, are out of reach).  It is killed (SIGKILL) by the kernel when the thread that
//    created this object ends, so a crashing test binary leaves nothing
//    running; create the object on a thread that outlives it.
//  - Everything that polls (waitForLogLine, waitForExit, stop) does so with a
//    deadline; nothing sleeps a fixed time.
//  - The destructor never throws: it stops the program (SIGTERM, then SIGKILL
//    to its whole process group), reaps it and removes the log folder.  When
//    the running test has already failed, it first prints the end of the log
//    to standard error, since the log is the best clue to what went wrong.
//  - Not thread-safe: use one object from one thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace skerrow_test {

// Environment variables by name.
using Environment = std::map<std::string, std::string>;

// `base` with every variable of `over` added, replacing same-named ones.
Environment mergeEnvironment(Environment base, const Environment& over);

// Whom to run a program as.
struct RunAs {
  uid_t uid = 0;
  gid_t gid = 0;
};

// How to start the program.  Declared outside the class so it can have
// default member initializers and still be a defaulted constructor argument.
struct DaemonProcessOptions {
  Environment environment = {};            // merged over the current environment
  std::optional<RunAs> runAs = {};         // nothing: our own credentials
  std::string workingDirectory = {};       // empty: our own working directory
};

class DaemonProcess {
 public:
  using Options = DaemonProcessOptions;

  // Starts `program` (looked up with findProgram when it has no slash) with
  // `arguments` (argv[1] onwards).  Throws std::runtime_error when the
  // program cannot be found or the process cannot be created; a program that
  // starts but cannot be executed shows up as exit status 127 with the reason
  // in the log.
  DaemonProcess(const std::string& program, const std::vector<std::string>& arguments,
                Options options = {});
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& program() const { return program_; }
  const std::string& logPath() const { return logPath_; }

  // Whether the process has not exited yet (reaps it when it has).
  bool isRunning();

  // Everything written to standard output and standard error so far.
  std::string logText() const;
  // The log split at newlines; a last line still lacking its newline is
  // included as it stands.
  std::vector<std::string> logLines() const;
  // Polls the log until a line contains `substring`; false at the deadline.
  bool waitForLogLine(const std::string& substring,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) const;
  // How many lines of the log are exactly `line`.
  std::size_t countLogLines(const std::string& line) const;

  // Polls until the process exits; its exit status (128 + signal number when
  // killed by a signal), or nothing when it is still running at the deadline.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
  // The exit status once the process has exited (as waitForExit).
  std::optional<int> exitStatus() const { return exitStatus_; }

  // Sends SIGTERM and waits up to `timeout` for the process to exit; then
  // kills its whole process group with SIGKILL and reaps it.  Answers the
  // exit status.  Does nothing more than answer it when already exited.
  int stop(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));

  // CPU time (user + system) the process has used, in seconds: from
  // /proc/<pid>/stat while it runs; once it has exited, what the kernel
  // reported when it was reaped (which also counts children it waited for).
  double cpuSeconds();

 private:
  void start(const std::vector<std::string>& arguments, const Options& options);
  bool reap(bool block);
  void cleanUp() noexcept;

  std::string program_;
  std::string folder_;
  std::string logPath_;
  pid_t pid_ = -1;
  std::optional<int> exitStatus_;
  double cpuSecondsAtExit_ = 0;
};

}  // namespace skerrow_test
