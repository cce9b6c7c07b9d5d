#include "kvc/diagnostic_log.h"

#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "kvc/debug_switches.h"
#include "kvc/string_time.h"
#include "kvc/repeated_lines.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/named_lock.h"
#include "platform/process.h"

namespace kvc {
namespace {

constexpr uint32_t kLockWaitMs = 250;
constexpr int kDefaultWrapLines = 30000;
constexpr int kWrapUnset = INT_MIN;

struct WriterState {
  FILE* file = nullptr;  // the log file, once opened
  std::string file_name;
  std::string process_name;
  int counter = 0;
  int wrap_limit = kWrapUnset;
  RepeatedLines repeats;
};

// Changed only while the named lock is held. Never destroyed: exit
// routines registered before its first use still log after the static
// objects are gone.
WriterState& Writer() {
  static auto* state = new WriterState;
  return *state;
}

// Without the machine-wide lock (its runtime directory refused, say) the
// writers of this process still take turns and no line is lost; only the
// lines of two processes may then interleave.
class ProcessOnlyLock final : public platform::NamedLock {
 public:
  bool TryLockFor(uint32_t timeout_ms) override {
    const uint64_t deadline = platform::MonotonicMillis() + timeout_ms;
    while (!mutex_.try_lock()) {
      if (platform::MonotonicMillis() >= deadline) return false;
      platform::SleepMillis(1);
    }
    return true;
  }
  void Unlock() override { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

struct WriterLockState {
  platform::NamedLock* lock = nullptr;
  std::string name;
  int error = 0;  // why the machine-wide lock could not be had; said once
};

WriterLockState& WriterLockOf() {
  static WriterLockState* state = [] {
    auto* s = new WriterLockState;
    const std::string server = platform::GetEnv("COLL_SERVERID").value_or("");
    const std::string number = platform::GetEnv("COLL_SERVICENUMBER").value_or("");
    s->name = "LogMutex_" + server + "_" + number;
    s->lock = platform::CreateNamedLock(s->name, &s->error).release();
    if (s->lock == nullptr) s->lock = new ProcessOnlyLock;
    return s;
  }();
  return *state;
}

platform::NamedLock* WriterLock() { return WriterLockOf().lock; }

struct LevelTraits {
  bool write = true;
  bool echo = false;
  bool flush = false;
  bool timed = false;
  char shown = ' ';
};

LevelTraits TraitsOf(char level) {
  const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(level)));
  LevelTraits t;
  t.shown = upper;
  switch (upper) {
    case 'E':
    case 'S':
      t.echo = t.flush = true;
      break;
    case 'A':
      t.echo = true;
      t.shown = 'I';
      break;
    case 'I':
    case 'W':
      break;
    case 'H':
      t.write = Options().trace_detail;
      t.flush = t.timed = true;
      break;
    case 'T':
      t.flush = t.timed = true;
      break;
    case '@':
      t.write = false;
      break;
    case '-':
    case '\0':
      t.shown = '\0';
      break;
    default:
      t.echo = true;
  }
  return t;
}

std::string BuildPrefix(const char* id, const LevelTraits& traits) {
  if (traits.shown == '\0' || id == nullptr) return {};
  if (id[0] == '.') return std::string(id + 1) + ' ';
  std::string prefix = id;
  prefix += traits.shown;
  prefix += ' ';
  if (traits.timed) {
    const platform::LocalTime now = platform::NowLocal();
    char time_text[32];
    snprintf(time_text, sizeof time_text, "(%02d%02d%02d) ", now.hour, now.minute, now.second);
    prefix += time_text;
  }
  for (char& c : prefix) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return prefix;
}

// Other processes append to the same file under the same lock, so every
// write goes to the current end and is flushed before the lock is let go:
// a line is never split by another writer.
void WriteToFile(const std::string& prefix, uint32_t thread, const char* message) {
  WriterState& w = Writer();
  w.file = LogWrap(w.file, w.file_name.c_str(), &w.counter);
  if (w.file == nullptr) return;
  fseek(w.file, 0, SEEK_END);
  if (fprintf(w.file, "%s(%u)%s", prefix.c_str(), thread, message) <= 0)
    fprintf(stderr, "+ %s(%u)%s", prefix.c_str(), thread, message);
  fflush(w.file);
}

void Emit(const LevelTraits& traits, const std::string& prefix, const char* message) {
  WriterState& w = Writer();
  const uint32_t thread = platform::CurrentThreadId();
  if (w.file != nullptr) {
    WriteToFile(prefix, thread, message);
  } else if (!traits.echo) {
    if (printf("%s%s(%u)%s", w.process_name.c_str(), prefix.c_str(), thread, message) <= 0)
      fprintf(stderr, "+ %s(%u)%s", prefix.c_str(), thread, message);
    fflush(stdout);
  }
  if (traits.echo) {
    fprintf(stderr, "%s(%u)%s", prefix.c_str(), thread, message);
    fflush(stderr);
  }
}

void WriteLine(char level, const char* id, const char* message) {
  const LevelTraits traits = TraitsOf(level);
  WriterState& w = Writer();
  if (level == '@') {
    w.process_name = id == nullptr ? "" : id;
    return;
  }
  if (!traits.write) return;
  const std::string stamp = TimeStamp();
  const std::string prefix = BuildPrefix(id, traits);
  const RepeatedLines::Verdict verdict =
      w.repeats.Check(std::string(1, level) + (id == nullptr ? "" : id) + '|' + message, platform::MonotonicMillis());
  if (verdict.repeats > 0) {
    char note[96];
    snprintf(note, sizeof note, "The line before came %d more times\n", verdict.repeats);
    Emit(TraitsOf('i'), stamp + "KVC0100I ", note);
  }
  if (verdict.write_line) Emit(traits, stamp + prefix, message);
}

void LogV(char level, const char* id, const char* location, const char* format, va_list args) {
  WriterLockState& state = WriterLockOf();
  platform::NamedLock* lock = state.lock;
  if (!lock->TryLockFor(kLockWaitMs)) return;
  if (state.error != 0 && Writer().file != nullptr) {
    char note[600];
    snprintf(note, sizeof note, "The log lock %s cannot be created (error %d): lines of other processes may interleave\n",
             state.name.c_str(), state.error);
    state.error = 0;
    WriteLine('w', "kvc0101", note);
  }
  char message[8192];
  size_t used = 0;
  if (location != nullptr) used = static_cast<size_t>(snprintf(message, sizeof message, "%s ", location));
  const int n = vsnprintf(message + used, sizeof message - used, format, args);
  if (n <= 0 && used == 0) snprintf(message, sizeof message, " *** vsprintf error **** ");
  WriteLine(level, id, message);
  lock->Unlock();
}

int ReadWrapLimit() {
  const auto value = platform::GetEnv("COLL_WRAPLINES");
  return value.has_value() ? atoi(value->c_str()) : kDefaultWrapLines;
}

std::string LogDirectory() {
  const auto dir = platform::GetEnv("KVCLOGDIR");
  return dir.has_value() && !dir->empty() ? *dir : std::string(".");
}

std::string InLogDirectory(const char* name) {
  std::string dir = LogDirectory();
  if (platform::CreateDirectories(dir) != 0) {
    Log('w', "utf0105", "Could not create path: %s, using '.'\n", dir.c_str());
    dir = ".";
  }
  return dir + platform::PathSeparator() + name;
}

}  // namespace

std::string TimeStamp() {
  const platform::LocalTime now = platform::NowLocal();
  char text[40];
  snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d ", now.year, now.month, now.day, now.hour,
           now.minute, now.second, now.millisecond);
  return text;
}

void Log(char level, const char* id, const char* format, ...) {
  va_list args;
  va_start(args, format);
  LogV(level, id, nullptr, format, args);
  va_end(args);
}

void LogAt(const char* file, int line, const char* level, const char* id, const char* format, ...) {
  char location[300];
  if (Options().trace_detail) snprintf(location, sizeof location, "%s.%d", file, line);
  va_list args;
  va_start(args, format);
  LogV(level == nullptr ? '\0' : level[0], id, Options().trace_detail ? location : nullptr,
       format, args);
  va_end(args);
}

void HexDump(const char* id, const void* bytes, size_t length) {
  const auto* data = static_cast<const unsigned char*>(bytes);
  for (size_t offset = 0; offset < length; offset += 16) {
    const size_t count = length - offset < 16 ? length - offset : 16;
    char hex[40] = "";
    char text[17] = "";
    size_t used = 0;
    for (size_t i = 0; i < count; ++i) {
      if (i > 0 && i % 4 == 0) hex[used++] = ' ';
      used += static_cast<size_t>(snprintf(hex + used, sizeof hex - used, "%02x", data[offset + i]));
      const unsigned char c = data[offset + i];
      text[i] = (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
    }
    text[count] = '\0';
    Log('t', id == nullptr ? "upx0100" : id, "%03x: %-*s *%s*\n", static_cast<unsigned>(offset), 35,
        hex, text);
  }
}

FILE* LogWrap(FILE* file, const char* name, int* counter) {
  WriterState& w = Writer();
  if (w.wrap_limit == kWrapUnset) w.wrap_limit = ReadWrapLimit();
  if (w.wrap_limit <= 0 || (*counter)++ < w.wrap_limit) return file;
  *counter = 1;  // the note below is the first write of the new file
  FILE* reopened = freopen(name, "w+", file);
  if (reopened == nullptr) return nullptr;
  fprintf(reopened, "%sCGN5000I (%u)       File wrapped -- %s\n", TimeStamp().c_str(), platform::CurrentThreadId(),
          FormatNow(nullptr, 1));
  return reopened;
}

int OpenLogFile() {
  const std::string path = InLogDirectory("col.log");
  platform::NamedLock* lock = WriterLock();
  const bool locked = lock->TryLockFor(kLockWaitMs);
  WriterState& w = Writer();
  int rc = 1;
  // Appended to: the agent and the collector of a server share the file,
  // and neither may wipe what the other wrote before it (re)started.
  if (FILE* file = fopen(path.c_str(), "a")) {
    if (w.file != nullptr) fclose(w.file);
    w.file = file;
    w.file_name = path;
    w.counter = 0;
    w.wrap_limit = kWrapUnset;
    rc = 0;
  }
  if (locked) lock->Unlock();
  return rc;
}

int BackupCountFor(const char* setting, int first_debug_level) {
  if (setting == nullptr || *setting == '\0') return first_debug_level != 0 ? 5 : 1;
  const long n = strtol(setting, nullptr, 10);
  if (n < -9) return n < -9999 ? 9999 : static_cast<int>(-n);
  if (n < 0) return 0;
  return n > 9 ? 9 : static_cast<int>(n);
}

void RotateBackups(const char* path, int count) {
  if (count <= 0) return;
  const auto backup = [path](int k) {
    std::string name = path;
    name.replace(name.size() - 1, 1, std::to_string(k));
    return name;
  };
  remove(backup(count).c_str());
  for (int k = count - 1; k >= 1; --k) rename(backup(k).c_str(), backup(k + 1).c_str());
  rename(path, backup(1).c_str());
}

FILE* OpenOutputFile(const char* name) {
  static const int backups = [] {
    const auto setting = platform::GetEnv("COLL_NUMOUTBAK");
    return BackupCountFor(setting ? setting->c_str() : nullptr, Debug().levels[0]);
  }();
  static std::string path;
  static int failures = 0;
  for (const char* file_name = name == nullptr ? "col.out" : name;; file_name = "colx.out") {
    if (path.empty()) path = InLogDirectory(file_name);
    RotateBackups(path.c_str(), backups);
    FILE* file = fopen(path.c_str(), "w");
    if (file != nullptr) {
      Log('i', "uoi0025", "File %s opened\n", path.c_str());
      return file;
    }
    Log('e', "uoi0030", "Could not open %s\n", path.c_str());
    if (failures++ == 0) printf("CAT1995E - Can't open message ouput file: %s\n", path.c_str());
    path.clear();
    if (failures >= 2) return nullptr;
  }
}

}  // namespace kvc
