#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/core/lib_log.h"

namespace zem {

class SyslogSink;

/// Where the static part of every line is learned from.
struct LogFiles {
  std::string issue = "/etc/zem_issue";
  std::string message_ids = "/opt/orlane/zem-common/logging/message-ids.txt";
  std::string structured_data = "/opt/orlane/zem-common/logging/structured-data.txt";
};

/// One log line: built by setters, emitted to syslog by the destructor.
///
/// Call sites use the macros of framework/log.h, which test `logLevel` first.
/// Threads: one instance belongs to one thread; any number of threads log at once.
/// Errors: none reach the caller; a line that cannot be built is replaced by one that says so.
class Logger {
 public:
  /// Lines above it are not emitted.
  static std::atomic<uint32_t> logLevel;

  explicit Logger(LibraryLogLevel level);
  virtual ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  Logger& subcomp(const char* name);
  /// `name` must outlive the line.
  Logger& s2comp(const char* name);
  Logger& entid(const char* id);
  /// "key:value", or a bare value, which gets the key "tag".
  Logger& tag(const char* text);
  /// Text above 2 MiB is dropped; the line is written without it.
  Logger& put(const char* format, ...) __attribute__((format(printf, 2, 3)));
  Logger& vput(const char* format, va_list arguments);

  /// Also writes every line, whatever its level, to standard output.
  static void SetConsoleCopy(bool on);

  /// Takes finished lines; the default is syslog().  `priority` is facility and severity.
  using Emitter = void (*)(int priority, const char* line);
  /// Null puts the default back.  Gives the one before.
  static Emitter SetEmitter(Emitter emitter);

  /// From now on lines that go to syslog wait for nobody; before, each is one call of the C library.  Gives
  /// the sink, which lives as long as the process.
  static SyslogSink& StartSyslog(const std::string& identity);

  /// Reads tables, node type and environment.  Runs before `main` by itself; tests run it again with other
  /// files.
  static void StaticStart(const LogFiles& files);

 private:
  void Emit();
  std::string Line() const;
  void AppendStructuredData(std::string* line) const;

  const uint32_t level_;
  std::string msgid_;
  std::string entid_;
  std::vector<std::string> tags_;
  std::unique_ptr<std::ostringstream> stream_;
  std::string subcomp_;
  const char* s2comp_ = nullptr;
  bool emits_ = true;
};

/// The lower-case word of a level 0..6: "off", "fatal", "error", "warn", "info", "debug", "trace".
const char* LevelName(int level);
std::optional<int> ParseLevel(std::string_view word);

/// Sets `Logger::logLevel` and logs so.
void SetLogLevel(uint32_t level);

/// The libraries' lines then go through the Logger.
void InstallLibraryLogBridge();

}  // namespace zem
