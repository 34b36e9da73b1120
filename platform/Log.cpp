#include "platform/Log.h"

#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/Format.h"

namespace platform {
namespace {

std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}

Log::Sink& currentSink() {
  static Log::Sink sink;
  return sink;
}

Log::EntrySink& currentEntrySink() {
  static Log::EntrySink sink;
  return sink;
}

// To the journal with sd_journal_send; to syslog where no journal listens.
void systemLog(const LogEntry& entry) {
  std::vector<std::string> assignments;
  assignments.reserve(entry.fields.size() + 3);
  assignments.push_back("MESSAGE=" + entry.text);
  assignments.push_back("PRIORITY=" + std::to_string(static_cast<int>(entry.priority)));
  assignments.push_back("SYSLOG_IDENTIFIER=" + std::string(program_invocation_short_name));
  for (const auto& [name, value] : entry.fields) assignments.push_back(name + "=" + value);
  std::vector<struct iovec> vector(assignments.size());
  for (size_t i = 0; i < assignments.size(); ++i)
    vector[i] = {const_cast<char*>(assignments[i].data()), assignments[i].size()};
  if (sd_journal_sendv(vector.data(), static_cast<int>(vector.size())) < 0) {
    static std::once_flag opened;
    std::call_once(opened, [] { openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_DAEMON); });
    syslog(static_cast<int>(entry.priority), "%s", entry.text.c_str());
  }
  // Standard error too when it is a terminal, or when SKERROW_LOG_STDERR asks for it (tests, debugging).
  static const bool toTerminal = isatty(STDERR_FILENO) == 1 || std::getenv("SKERROW_LOG_STDERR") != nullptr;
  if (toTerminal) {
    std::string out = entry.text;
    out += '\n';
    ssize_t ignored = ::write(STDERR_FILENO, out.data(), out.size());
    (void)ignored;
  }
}

void write(const LogEntry& entry) {
  Log::Sink sink;
  Log::EntrySink entrySink;
  {
    std::lock_guard<std::mutex> lock(sinkMutex());
    sink = currentSink();
    entrySink = currentEntrySink();
  }
  if (entrySink) entrySink(entry);
  if (sink)
    sink(entry.text);
  else if (!entrySink)
    systemLog(entry);
}

}  // namespace

void Log::line(const std::string& text) { write(LogEntry{LogPriority::Info, text, {}}); }

void Log::event(LogPriority priority, const std::string& text,
                std::vector<std::pair<std::string, std::string>> fields) {
  write(LogEntry{priority, text, std::move(fields)});
}

void Log::format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = vformat(fmt, args);
  va_end(args);
  line(text);
}

void Log::writeStandardOutput(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

void Log::writeStandardError(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

Log::Sink Log::setSink(Sink sink) {
  std::lock_guard<std::mutex> lock(sinkMutex());
  Sink previous = std::move(currentSink());
  currentSink() = std::move(sink);
  return previous;
}

Log::EntrySink Log::setEntrySink(EntrySink sink) {
  std::lock_guard<std::mutex> lock(sinkMutex());
  EntrySink previous = std::move(currentEntrySink());
  currentEntrySink() = std::move(sink);
  return previous;
}

struct LogCapture::State {
  mutable std::mutex mutex;
  std::vector<std::string> lines;
  std::vector<LogEntry> entries;
};

LogCapture::LogCapture() : state_(std::make_shared<State>()) {
  auto state = state_;
  previous_ = Log::setSink([state](const std::string& text) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->lines.push_back(text);
  });
  previousEntrySink_ = Log::setEntrySink([state](const LogEntry& entry) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->entries.push_back(entry);
  });
}

LogCapture::~LogCapture() {
  Log::setEntrySink(std::move(previousEntrySink_));
  Log::setSink(std::move(previous_));
}

std::vector<LogEntry> LogCapture::entries() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->entries;
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->lines;
}

size_t LogCapture::count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  size_t n = 0;
  for (const auto& l : state_->lines)
    if (l == text) ++n;
  return n;
}

bool LogCapture::contains(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  for (const auto& l : state_->lines)
    if (l.find(fragment) != std::string::npos) return true;
  return false;
}

}  // namespace platform
