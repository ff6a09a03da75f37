// Logging and check services shared by the vidra libraries.
//
// Every message has a level (1 = broken invariant, 2 = why a frame failed, higher = more detail)
// and a channel name. A message is emitted when its level is at or below the level enabled for
// its channel. By default levels up to 2 are enabled for every channel and go to stderr, one line
// per message. A host application can change the level per channel and install its own sink.
//
// Log sites always ask isLoggerEnabled() first, so a disabled message costs one comparison and
// nothing is formatted for it.
#pragma once

#include <cstdarg>
#include <sstream>
#include <string>
#include <string_view>

#if defined(VIDRA_LOG_BUILDING)
#define VIDRA_LOG_EXPORT __attribute__((visibility("default")))
#else
#define VIDRA_LOG_EXPORT
#endif

namespace vidra {

// Reserved for per-site filtering; every site in this project passes null.
class LoggingFilter;

// True when a message of `level` on `channel` would be emitted.
VIDRA_LOG_EXPORT bool isLoggerEnabled(int level, const char* channel);

// Builds one log line with operator<< and emits it when destroyed.
class VIDRA_LOG_EXPORT LoggingStream {
 public:
  LoggingStream(LoggingFilter* filter, int level, const char* channel, const char* file,
                const char* function, int line, int* site);
  ~LoggingStream();
  LoggingStream(const LoggingStream&) = delete;
  LoggingStream& operator=(const LoggingStream&) = delete;

  template <typename T>
  LoggingStream& operator<<(const T& value) {
    stream_ << value;
    return *this;
  }
  std::ostream& stream() { return stream_; }

 private:
  int level_;
  const char* channel_;
  const char* file_;
  int line_;
  std::ostringstream stream_;
};

// Emits one printf-formatted line.
VIDRA_LOG_EXPORT void logToLogger(LoggingFilter* filter, int level, const char* channel,
                                  const char* file, const char* function, int line, int* site,
                                  const char* format, ...) __attribute__((format(printf, 8, 9)));

// True when a message of `level` on `channel` is configured to stop the program (see
// setLoggerBreakLevel). Asked after each logToLogger().
VIDRA_LOG_EXPORT bool loggerMustBreak(int level, const char* channel);

// Reports a failed assertion. Returns true when the host asks for a debugger break.
VIDRA_LOG_EXPORT bool handleAssertion(const char* file, int line, const char* function,
                                      const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Stops in the debugger (SIGTRAP); a debugger can continue from it. Without a debugger the
// signal's default action ends the process, which is what a host that asks for breaks wants.
VIDRA_LOG_EXPORT void debugBreak();

// Text of a failed comparison check: "<expression> (<a> vs. <b>)".
template <typename A, typename B>
std::string MakeCheckOpString(const A& a, const B& b, const char* expression) {
  std::ostringstream out;
  out << expression << " (" << a << " vs. " << b << ")";
  return out.str();
}

// ---- Host configuration -------------------------------------------------------------------

// Receives every emitted line. `text` has no trailing newline.
using LogSink = void (*)(void* user, int level, const char* channel, const char* file, int line,
                         const char* text);

// Installs `sink` (with `user` passed back to it); null restores the stderr sink.
VIDRA_LOG_EXPORT void setLogSink(LogSink sink, void* user);

// Installs `sink` only while the stderr sink is in place, in one step: a library or plugin that
// routes the log into its host's system calls this, so that a sink the host set first stays.
// Returns whether `sink` was installed.
VIDRA_LOG_EXPORT bool setLogSinkIfUnset(LogSink sink, void* user);

// Enables levels up to `level` on `channel`. A null channel sets the level of every channel
// that has no level of its own. Level 0 silences the channel.
VIDRA_LOG_EXPORT void setLoggerLevel(const char* channel, int level);

// The level enabled on `channel` (the default level when it has none of its own).
VIDRA_LOG_EXPORT int loggerLevel(const char* channel);

// Forgets all per-channel levels and sets the default level to 2.
VIDRA_LOG_EXPORT void resetLoggerLevels();

// Messages at or below `level` make loggerMustBreak() true; 0 (the default) never breaks.
VIDRA_LOG_EXPORT void setLoggerBreakLevel(int level);

// Decides what handleAssertion() returns; false (the default) means no debugger break.
VIDRA_LOG_EXPORT void setAssertionBreaks(bool breaks);

}  // namespace vidra

// ---- Log and check sites ------------------------------------------------------------------

// A static per-site slot, -1 at load, touched only by the logging library.
#define VIDRA_LOG_SITE_   \
  ([]() -> int* {         \
    static int site = -1; \
    return &site;         \
  }())

// Stream site: `VIDRA_LOG(7, "mjpeg") << "text " << value;` builds nothing when disabled.
#define VIDRA_LOG(level, channel)                                                                \
  if (!::vidra::isLoggerEnabled((level), (channel))) {                                           \
  } else                                                                                         \
    ::vidra::LoggingStream(nullptr, (level), (channel), __FILE__, __PRETTY_FUNCTION__, __LINE__, \
                           VIDRA_LOG_SITE_)

// printf site, followed by the break step: a host that asks for it gets a debugger break.
#define VIDRA_LOGF(level, channel, ...)                                                          \
  do {                                                                                           \
    if (::vidra::isLoggerEnabled((level), (channel))) {                                          \
      ::vidra::logToLogger(nullptr, (level), (channel), __FILE__, __PRETTY_FUNCTION__, __LINE__, \
                           VIDRA_LOG_SITE_, __VA_ARGS__);                                        \
      if (::vidra::loggerMustBreak((level), (channel)) &&                                        \
          ::vidra::handleAssertion(__FILE__, __LINE__, __PRETTY_FUNCTION__,                      \
                                   "Assertion failed: Reached terminating log level. "           \
                                   "Terminating\n")) {                                           \
        ::vidra::debugBreak();                                                                   \
      }                                                                                          \
    }                                                                                            \
  } while (0)

// Plain check: logs "Check failed <expression> " at level 1 on channel "check" and goes on.
#define VIDRA_CHECK(condition)                                 \
  do {                                                         \
    if (!(condition)) {                                        \
      VIDRA_LOG(1, "check") << "Check failed " #condition " "; \
    }                                                          \
  } while (0)

// Comparison check: logs "Check failed: a op b (va vs. vb) " at level 1 on channel "check"
// and goes on.
#define VIDRA_CHECK_OP_(op, a, b)                                                                  \
  do {                                                                                             \
    const int vidra_check_a_ = (a);                                                                \
    const int vidra_check_b_ = (b);                                                                \
    if (!(vidra_check_a_ op vidra_check_b_)) {                                                     \
      const std::string vidra_check_text_ =                                                        \
          ::vidra::MakeCheckOpString<int, int>(vidra_check_a_, vidra_check_b_, #a " " #op " " #b); \
      VIDRA_LOG(1, "check") << "Check failed: " << vidra_check_text_ << " ";                       \
    }                                                                                              \
  } while (0)
#define VIDRA_CHECK_LE(a, b) VIDRA_CHECK_OP_(<=, a, b)
#define VIDRA_CHECK_LT(a, b) VIDRA_CHECK_OP_(<, a, b)
#define VIDRA_CHECK_EQ(a, b) VIDRA_CHECK_OP_(==, a, b)
