#include "vidra/log.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace vidra {
namespace {

constexpr int kDefaultLevel = 2;
constexpr int kMaxChannels = 32;
constexpr size_t kMaxChannelName = 32;

// Channels with a level of their own. A slot is filled completely before `channel_count`
// publishes it, and its name never changes afterwards, so readers scan without a lock.
struct ChannelLevel {
  char name[kMaxChannelName];
  std::atomic<int> level;
};
ChannelLevel g_channels[kMaxChannels];
std::atomic<int> g_channel_count{0};
std::atomic<int> g_default_level{kDefaultLevel};
// Highest level enabled anywhere: lets isLoggerEnabled() reject verbose levels at once.
std::atomic<int> g_max_level{kDefaultLevel};
std::atomic<int> g_break_level{0};
std::atomic<bool> g_assertion_breaks{false};

std::mutex g_config_mutex;  // serialises changes of the channel table
std::mutex g_sink_mutex;    // serialises emission, so lines never interleave
LogSink g_sink = nullptr;
void* g_sink_user = nullptr;

// A slot stores at most the first kMaxChannelName - 1 characters of a name, and names are
// compared on exactly that prefix: a longer name finds the slot that it was stored in (and
// takes no new slot at each setLoggerLevel() call), at the price that names which agree in
// their first kMaxChannelName - 1 characters share one level.
const ChannelLevel* findChannel(const char* channel) {
  if (channel == nullptr) return nullptr;
  const int count = g_channel_count.load(std::memory_order_acquire);
  for (int i = 0; i < count; ++i) {
    if (std::strncmp(g_channels[i].name, channel, kMaxChannelName - 1) == 0) {
      return &g_channels[i];
    }
  }
  return nullptr;
}

int levelOf(const char* channel) {
  // A channel level of -1 means "no level of its own" (see resetLoggerLevels).
  const ChannelLevel* entry = findChannel(channel);
  const int own = entry ? entry->level.load(std::memory_order_relaxed) : -1;
  return own >= 0 ? own : g_default_level.load(std::memory_order_relaxed);
}

void recomputeMaxLevel() {
  int max_level = g_default_level.load(std::memory_order_relaxed);
  const int count = g_channel_count.load(std::memory_order_acquire);
  for (int i = 0; i < count; ++i) {
    const int level = g_channels[i].level.load(std::memory_order_relaxed);
    if (level > max_level) max_level = level;
  }
  g_max_level.store(max_level, std::memory_order_relaxed);
}

const char* baseName(const char* file) {
  if (file == nullptr) return "";
  const char* slash = std::strrchr(file, '/');
  return slash ? slash + 1 : file;
}

// The site slot records that the site has been reached at least once. Threads that emit from
// the same site at once all write the same value, through relaxed atomic accesses so that this
// is no data race; a site that logs nothing never gets here.
void markSiteReached(int* site) {
  if (site != nullptr && __atomic_load_n(site, __ATOMIC_RELAXED) < 0) {
    __atomic_store_n(site, 0, __ATOMIC_RELAXED);
  }
}

void emit(int level, const char* channel, const char* file, int line, const char* text) {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  if (g_sink != nullptr) {
    g_sink(g_sink_user, level, channel ? channel : "", file ? file : "", line, text);
    return;
  }
  std::fprintf(stderr, "[%d %s %s:%d] %s\n", level, channel ? channel : "", baseName(file), line,
               text);
}

}  // namespace

bool isLoggerEnabled(int level, const char* channel) {
  if (level > g_max_level.load(std::memory_order_relaxed)) return false;
  return level <= levelOf(channel);
}

LoggingStream::LoggingStream(LoggingFilter* /*filter*/, int level, const char* channel,
                             const char* file, const char* /*function*/, int line, int* site)
    : level_(level), channel_(channel), file_(file), line_(line) {
  markSiteReached(site);
}

LoggingStream::~LoggingStream() { emit(level_, channel_, file_, line_, stream_.str().c_str()); }

void logToLogger(LoggingFilter* /*filter*/, int level, const char* channel, const char* file,
                 const char* /*function*/, int line, int* site, const char* format, ...) {
  markSiteReached(site);
  char buffer[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  emit(level, channel, file, line, buffer);
}

bool loggerMustBreak(int level, const char* /*channel*/) {
  return level <= g_break_level.load(std::memory_order_relaxed);
}

bool handleAssertion(const char* file, int line, const char* function, const char* format, ...) {
  char buffer[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  // Drop a trailing newline: sinks get lines without one.
  const size_t length = std::strlen(buffer);
  if (length > 0 && buffer[length - 1] == '\n') buffer[length - 1] = '\0';
  std::string text = buffer;
  if (function != nullptr) text += std::string(" in ") + function;
  emit(1, "assert", file, line, text.c_str());
  return g_assertion_breaks.load(std::memory_order_relaxed);
}

void debugBreak() { std::raise(SIGTRAP); }

void setLogSink(LogSink sink, void* user) {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  g_sink = sink;
  g_sink_user = user;
}

bool setLogSinkIfUnset(LogSink sink, void* user) {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  if (g_sink != nullptr) return false;
  g_sink = sink;
  g_sink_user = user;
  return true;
}

void setLoggerLevel(const char* channel, int level) {
  std::lock_guard<std::mutex> lock(g_config_mutex);
  if (channel == nullptr) {
    g_default_level.store(level, std::memory_order_relaxed);
  } else if (const ChannelLevel* found = findChannel(channel)) {
    const_cast<ChannelLevel*>(found)->level.store(level, std::memory_order_relaxed);
  } else {
    const int count = g_channel_count.load(std::memory_order_relaxed);
    if (count < kMaxChannels) {
      ChannelLevel& slot = g_channels[count];
      // The prefix that findChannel() compares.
      std::strncpy(slot.name, channel, kMaxChannelName - 1);
      slot.name[kMaxChannelName - 1] = '\0';
      slot.level.store(level, std::memory_order_relaxed);
      g_channel_count.store(count + 1, std::memory_order_release);
    }
  }
  recomputeMaxLevel();
}

int loggerLevel(const char* channel) { return levelOf(channel); }

void resetLoggerLevels() {
  std::lock_guard<std::mutex> lock(g_config_mutex);
  // Slots stay published (readers may be scanning them); they fall back to the default.
  const int count = g_channel_count.load(std::memory_order_relaxed);
  for (int i = 0; i < count; ++i) g_channels[i].level.store(-1, std::memory_order_relaxed);
  g_default_level.store(kDefaultLevel, std::memory_order_relaxed);
  recomputeMaxLevel();
}

void setLoggerBreakLevel(int level) { g_break_level.store(level, std::memory_order_relaxed); }

void setAssertionBreaks(bool breaks) {
  g_assertion_breaks.store(breaks, std::memory_order_relaxed);
}

}  // namespace vidra
