// The system log: plain lines, no levels, no prefixes.
//
// Each line goes to syslog (and so to the journal) and, when standard error
// is a terminal or the environment sets SKERROW_LOG_STDERR, to standard error.  Tests replace the sink to capture lines.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace platform {

class Log {
 public:
  using Sink = std::function<void(const std::string& line)>;

  // Writes one line (a trailing newline is not needed).  Thread-safe.
  static void line(const std::string& text);
  // printf-style convenience.
  static void format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

  // Writes text to standard output as it is (no newline added), flushed at once.
  static void writeStandardOutput(const std::string& text);
  // Writes text to standard error as it is (no newline added).
  static void writeStandardError(const std::string& text);

  // Replaces the sink; an empty sink restores the system log.  Answers the previous sink.
  static Sink setSink(Sink sink);
};

// Captures log lines for the lifetime of the object (tests).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  // How many captured lines equal `text` exactly.
  size_t count(const std::string& text) const;
  // Whether any captured line contains `fragment`.
  bool contains(const std::string& fragment) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  Log::Sink previous_;
};

}  // namespace platform
