#include "framework/log/logger.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "framework/log/log.h"
#include "framework/log/syslog_sink.h"
#include "platform/core/clock.h"
#include "platform/core/thread_name.h"

namespace zem {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

struct Level {
  const char* line_word;
  int severity;
  const char* name;
  const char* environment_word;
};
constexpr std::array kLevels = {
    Level{"", LOG_DEBUG, "off", ""},
    Level{"FATAL", LOG_CRIT, "fatal", "PANIC"},
    Level{"ERROR", LOG_ERR, "error", "ERROR"},
    Level{"WARNING", LOG_WARNING, "warn", "WARNING"},
    Level{"INFO", LOG_INFO, "info", "INFO"},
    Level{"DEBUG", LOG_DEBUG, "debug", "VERBOSE"},
    Level{"TRACE", LOG_DEBUG, "trace", "TRIVIA"},
};
constexpr uint32_t kMaxLevel = kLevels.size() - 1;

constexpr size_t kFirstTextBuffer = 2048;
constexpr size_t kMaxText = 2 * 1024 * 1024;
constexpr size_t kHeadRoom = 256;       // what stands before the text
constexpr size_t kMaxLine = 64 * 1024;  // above it no local syslog socket takes the datagram
constexpr size_t kEnvironmentWord = 10;
constexpr size_t kMaxShortLine = 256;
constexpr size_t kMaxLongLine = 512;

std::atomic<SyslogSink*> syslog_sink{nullptr};

void ToSyslog(int priority, const char* line) {
  if (SyslogSink* const sink = syslog_sink.load(std::memory_order_acquire)) {
    sink->Write(priority, line);
  } else {
    ::syslog(priority, "%s", line);
  }
}

// All static state is made at first use: constructors of other sources may log before this one's have run.
struct StaticState {
  const char* comp = "zem-qub";
  // All that `comp` was: lines under way may still read one of before.
  std::unordered_set<std::string> components;
  std::unordered_set<std::string> messageIds;
  std::unordered_map<std::string, std::unordered_set<std::string>> structuredData;
  std::atomic<bool> console{false};
  std::atomic<Logger::Emitter> emitter{&ToSyslog};
};

StaticState& State() {
  static StaticState* const state = new StaticState;  // never destroyed: threads log until the process ends
  return *state;
}

void Write(int priority, const std::string& line) {
  State().emitter.load(std::memory_order_relaxed)(priority, line.c_str());
}

__attribute__((format(printf, 2, 3))) void WriteFormatted(int priority, const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  State().emitter.load(std::memory_order_relaxed)(priority, text);
}

// A value must not be able to break the line in two.
void AppendValue(std::string_view value, std::string* out) {
  const size_t start = out->size();
  out->append(value);
  std::replace_if(
      out->begin() + static_cast<std::ptrdiff_t>(start), out->end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '_');
}

void AppendField(std::string_view key, std::string_view value, std::string* out) {
  out->push_back(' ');
  AppendValue(key, out);
  out->append("=\"");
  AppendValue(value, out);
  out->push_back('"');
}

void AppendNumber(int number, std::string* out) {
  char digits[16];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
  out->append(digits, static_cast<size_t>(end - digits));
}

void AppendNumberField(std::string_view key, int number, std::string* out) {
  out->push_back(' ');
  out->append(key);
  out->append("=\"");
  AppendNumber(number, out);
  out->push_back('"');
}

// False when the tag is not one of the permitted.
bool AppendTag(std::string_view tag, std::string* out) {
  const size_t colon = tag.find(':');
  std::string_view key = colon == std::string_view::npos ? std::string_view() : tag.substr(0, colon);
  const std::string_view value = colon == std::string_view::npos ? tag : tag.substr(colon + 1);
  if (key.empty()) {
    if (value.empty()) return true;
    key = "tag";
  }
  const auto& permitted = State().structuredData;
  if (!permitted.empty()) {
    const auto found = permitted.find(std::string(key));
    if (found == permitted.end()) return false;
    if (!found->second.empty() && !found->second.contains(std::string(value))) return false;
  }
  AppendField(key, value, out);
  return true;
}

std::string Timestamp() {
  const auto now = Clock::Process().WallNow().time_since_epoch();
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  const std::time_t seconds = milliseconds / 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[48];
  const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof(text) - length, ".%03dZ", static_cast<int>(milliseconds % 1000));
  return text;
}

void CopyToConsole(std::string_view data_and_text) {
  std::string line = Timestamp();
  line.push_back(' ');
  line.append(data_and_text);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

// Calls `take` for each line that is not a comment, cut to `limit`.
template <class Take>
void ForEachLine(const std::string& path, size_t limit, Take take) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    if (line.size() > limit) line.resize(limit);
    if (!line.empty() && line.front() == '#') continue;
    take(line);
  }
}

std::vector<std::string> SplitAtColons(const std::string& line) {
  std::vector<std::string> fields;
  boost::split(fields, line, [](char c) { return c == ':'; });
  return fields;
}

void LoadTables(const LogFiles& files) {
  StaticState& state = State();
  state.messageIds.clear();
  state.structuredData.clear();
  ForEachLine(files.message_ids, kMaxShortLine, [&](std::string line) {
    boost::trim(line);
    if (!line.empty()) state.messageIds.insert(std::move(line));
  });
  ForEachLine(files.structured_data, kMaxLongLine, [&](const std::string& line) {
    std::vector<std::string> fields = SplitAtColons(line);
    if (fields.size() != 2) return;
    boost::trim(fields[1]);
    std::unordered_set<std::string> values;
    if (!fields[1].empty()) boost::split(values, fields[1], [](char c) { return c == ','; });
    state.structuredData[boost::trim_copy(fields[0])] = std::move(values);
  });
}

void ReadComponent(const std::string& path) {
  ForEachLine(path, kMaxShortLine, [](const std::string& line) {
    std::vector<std::string> fields = SplitAtColons(line);
    if (fields.size() != 2 || fields[0] != "node-type") return;
    boost::trim(fields[1]);
    const std::string word = fields[1].substr(0, fields[1].find(' '));
    State().comp = State().components.insert(word).first->c_str();
  });
}

void ReadEnvironment() {
  uint32_t level = kLogInfo;
  if (const char* text = std::getenv("ZEM_LOG_LEVEL")) {
    const std::string_view word = std::string_view(text).substr(0, kEnvironmentWord);
    uint32_t found = kLogFatal;
    while (found <= kMaxLevel && word != kLevels[found].environment_word) ++found;
    if (found <= kMaxLevel) {
      level = found;
    } else {
      WriteFormatted(LOG_ERR, "Invalid log level %s, ignore", text);
    }
  }
  Logger::logLevel.store(level, std::memory_order_relaxed);
  WriteFormatted(LOG_INFO, "Set log level to %s", kLevels[level].environment_word);

  const char* method = std::getenv("ZEM_SYSLOG_METHOD");
  if (method != nullptr && std::strcmp(method, "DEVLOG") != 0) {
    const char* end = method + std::strlen(method);
    uint16_t port = 0;
    const auto parsed = std::from_chars(method, end, port);
    if (parsed.ec != std::errc() || parsed.ptr != end || port == 0) {
      WriteFormatted(LOG_ERR,
                     "Invalid UDP port provided in ZEM_SYSLOG_METHOD environment variable: %s. Using default "
                     "syslog UDP port",
                     method);
    }
  }
  WriteFormatted(LOG_INFO, "Use default syslog");
}

[[maybe_unused]] const bool started = [] {
  Logger::StaticStart(LogFiles());
  return true;
}();

}  // namespace

constinit std::atomic<uint32_t> Logger::logLevel{kLogInfo};

Logger::Logger(LibraryLogLevel level)
    : level_(static_cast<uint32_t>(level)), stream_(std::make_unique<std::ostringstream>()) {}

Logger::~Logger() {
  if (!emits_) return;
  try {
    Emit();
  } catch (const std::exception& e) {
    WriteFormatted(LOG_ERR, "Failed to log message: %s", e.what());
  } catch (...) {
    WriteFormatted(LOG_ERR, "Failed to log message: unknown error");
  }
}

Logger& Logger::subcomp(const char* name) {
  subcomp_ = name != nullptr ? name : "";
  return *this;
}

Logger& Logger::s2comp(const char* name) {
  s2comp_ = name;
  return *this;
}

Logger& Logger::entid(const char* id) {
  if (id != nullptr && *id != '\0') entid_ = id;
  return *this;
}

Logger& Logger::tag(const char* text) {
  if (text != nullptr && *text != '\0') tags_.emplace_back(text);
  return *this;
}

Logger& Logger::put(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vput(format, arguments);
  va_end(arguments);
  return *this;
}

Logger& Logger::vput(const char* format, va_list arguments) {
  if (format == nullptr || *format == '\0') return *this;
  char small[kFirstTextBuffer];
  va_list first;
  va_copy(first, arguments);
  const int length = std::vsnprintf(small, sizeof(small), format, first);
  va_end(first);
  if (length < 0) return *this;
  const auto size = static_cast<size_t>(length);
  if (size < sizeof(small)) {
    stream_->write(small, length);
  } else if (size < kMaxText) {
    const auto large = std::make_unique<char[]>(size + 1);
    va_list again;
    va_copy(again, arguments);
    std::vsnprintf(large.get(), size + 1, format, again);
    va_end(again);
    stream_->write(large.get(), length);
  }
  return *this;
}

void Logger::AppendStructuredData(std::string* line) const {
  line->append("[zem@7741");
  AppendField("comp", State().comp, line);
  AppendField("subcomp", subcomp_.empty() ? std::string_view("tarvik") : std::string_view(subcomp_), line);
  if (s2comp_ != nullptr) AppendField("s2comp", s2comp_, line);
  if (!entid_.empty()) AppendField("entId", entid_, line);
  AppendNumberField("tid", ThreadId(), line);
  AppendField("level", kLevels[level_].line_word, line);
  bool valid = msgid_ != "*";
  for (const std::string& tag : tags_) valid = AppendTag(tag, line) && valid;
  if (!valid) line->append(" invalid=\"true\"");
  line->push_back(']');
}

void Logger::Emit() {
  if (level_ < kLogFatal || level_ > kMaxLevel) {
    WriteFormatted(LOG_ERR, "Invalid log level %d", static_cast<int>(level_));
    return;
  }
  const bool emitted = level_ <= logLevel.load(std::memory_order_relaxed);
  const bool copied = State().console.load(std::memory_order_relaxed);
  if (!emitted && !copied) return;
  std::string line = Line();
  // Neither the process id nor a message id contains a bracket.
  if (copied) CopyToConsole(std::string_view(line).substr(line.find('[')));
  if (!emitted) return;
  if (line.size() > kMaxLine) {
    line.resize(kMaxLine - 3);
    line.append("...");
  }
  Write(LOG_LOCAL6 | kLevels[level_].severity, line);
}

std::string Logger::Line() const {
  const std::string_view text = stream_->view();
  std::string line;
  line.reserve(kHeadRoom + text.size());
  line.append("ZEM ");
  AppendNumber(::getpid(), &line);
  line.push_back(' ');
  line.append(msgid_.empty() || msgid_ == "*" ? std::string_view("-") : std::string_view(msgid_));
  line.push_back(' ');
  AppendStructuredData(&line);
  line.push_back(' ');
  line.append(text);
  return line;
}

SyslogSink& Logger::StartSyslog(const std::string& identity) {
  // Never destroyed: threads log until the process ends.
  static SyslogSink* const sink = [&identity] {
    SyslogSink::Options options;
    options.identity = identity;
    options.loss_line = [](uint64_t lost) {
      Logger logger(kLogWarning);
      logger.emits_ = false;
      logger.subcomp(kLog.subcomp).s2comp(kLog.s2comp);
      logger.put("%llu lines before this one were lost, since syslog did not read",
                 static_cast<unsigned long long>(lost));
      return logger.Line();
    };
    return new SyslogSink(std::move(options));
  }();
  sink->Start();
  syslog_sink = sink;
  return *sink;
}

void Logger::SetConsoleCopy(bool on) { State().console.store(on, std::memory_order_relaxed); }

Logger::Emitter Logger::SetEmitter(Emitter emitter) {
  return State().emitter.exchange(emitter != nullptr ? emitter : &ToSyslog);
}

void Logger::StaticStart(const LogFiles& files) {
  LoadTables(files);
  ReadEnvironment();
  ReadComponent(files.issue);
}

const char* LevelName(int level) {
  return level >= 0 && level <= static_cast<int>(kMaxLevel) ? kLevels[static_cast<size_t>(level)].name
                                                            : "unknown";
}

std::optional<int> ParseLevel(std::string_view word) {
  for (size_t level = 0; level < kLevels.size(); ++level) {
    if (word == kLevels[level].name) return static_cast<int>(level);
  }
  return std::nullopt;
}

void SetLogLevel(uint32_t level) {
  Logger::logLevel.store(level, std::memory_order_relaxed);
  ZLOG_INFO("%s set tarvik logLevel to: %s", "SetLogLevel", LevelName(static_cast<int>(level)));
}

void InstallLibraryLogBridge() {
  SetLibraryLogSink([](LibraryLogLevel level, const char* subcomponent, std::string_view text) {
    Logger(level).subcomp(subcomponent).put("%.*s", static_cast<int>(text.size()), text.data());
  });
}

namespace {

void PutLine(const LogSource& source, LibraryLogLevel level, const char* tag, const char* format,
             va_list arguments) {
  Logger logger(level);
  logger.subcomp(source.subcomp).s2comp(source.s2comp).tag(tag).vput(format, arguments);
}

}  // namespace

void LogLine(const LogSource& source, LibraryLogLevel level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  PutLine(source, level, nullptr, format, arguments);
  va_end(arguments);
}

void LogTagged(const LogSource& source, LibraryLogLevel level, const char* tag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  PutLine(source, level, tag, format, arguments);
  va_end(arguments);
}

void LogErrorCode(const LogSource& source, const char* code, const char* format, ...) {
  const bool word = std::isalpha(static_cast<unsigned char>(code[0])) != 0;
  const std::string tag = std::string(word ? "errorCode:" : "errorCode:MPA") + code;
  va_list arguments;
  va_start(arguments, format);
  PutLine(source, kLogError, tag.c_str(), format, arguments);
  va_end(arguments);
}

void LogContextError(const LogSource& source, int number, const char* format, ...) {
  for (const char* prefix : {"errorCode:CTX", "errorCode:MPACTX"}) {
    const std::string tag = prefix + std::to_string(number);
    va_list arguments;
    va_start(arguments, format);
    PutLine(source, kLogError, tag.c_str(), format, arguments);
    va_end(arguments);
  }
}

}  // namespace zem
