#include "platform/Log.h"

#include <syslog.h>
#include <unistd.h>

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

void systemLog(const std::string& text) {
  static std::once_flag opened;
  std::call_once(opened, [] { openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_DAEMON); });
  syslog(LOG_NOTICE, "%s", text.c_str());
  // Standard error too when it is a terminal, or when SKERROW_LOG_STDERR asks for it (tests, debugging).
  static const bool toTerminal = isatty(STDERR_FILENO) == 1 || std::getenv("SKERROW_LOG_STDERR") != nullptr;
  if (toTerminal) {
    std::string out = text;
    out += '\n';
    ssize_t ignored = ::write(STDERR_FILENO, out.data(), out.size());
    (void)ignored;
  }
}

}  // namespace

void Log::line(const std::string& text) {
  Sink sink;
  {
    std::lock_guard<std::mutex> lock(sinkMutex());
    sink = currentSink();
  }
  if (sink)
    sink(text);
  else
    systemLog(text);
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

struct LogCapture::State {
  mutable std::mutex mutex;
  std::vector<std::string> lines;
};

LogCapture::LogCapture() : state_(std::make_shared<State>()) {
  auto state = state_;
  previous_ = Log::setSink([state](const std::string& text) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->lines.push_back(text);
  });
}

LogCapture::~LogCapture() { Log::setSink(std::move(previous_)); }

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
