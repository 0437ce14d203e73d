#include "app/controller/controller_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sstream>

#include "framework/log/log.h"
#include "framework/process/atomic_file.h"
#include "framework/process/command.h"
#include "framework/process/error_text.h"

namespace zem::controller {
namespace {

namespace pt = boost::property_tree;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr size_t kMaxSize = 4 << 20;
constexpr int kMaxDepth = 32;
constexpr const char* kEncoding = "utf-8";
constexpr const char* kRoot = "config";
constexpr Duration kLockPause = std::chrono::milliseconds(50);

// The XML reader is recursive, so deep nesting would exhaust the stack.
bool IsTooDeep(const std::string& text) {
  int depth = 0;
  for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
    if (at + 1 >= text.size()) break;
    const char next = text[at + 1];
    if (next == '/') {
      --depth;
    } else if (next != '!' && next != '?') {
      const size_t end = text.find_first_of("<>", at + 1);
      const bool is_whole = end != std::string::npos && text[end] == '>' && text[end - 1] == '/';
      if (!is_whole && ++depth > kMaxDepth) return true;
    }
  }
  return false;
}

std::string TimeText(time_t seconds) {
  struct tm parts {};
  char text[32] = "";
  if (::localtime_r(&seconds, &parts) != nullptr) std::strftime(text, sizeof text, "%F %T", &parts);
  return text;
}

}  // namespace

ControllerFile::ControllerFile(Settings settings) : settings_(std::move(settings)) {}

UniqueFd ControllerFile::Lock(bool* missing) const {
  *missing = false;
  for (;;) {
    UniqueFd fd(::open(path().c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
      *missing = errno == ENOENT;
      if (!*missing) {
        ZLOG_ERROR("44081", "[%s] Failed to lock controller xml file : %s.", __func__,
                   Tarvik::Util::GetErrMsg(errno).c_str());
      }
      return {};
    }
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
      // The previous holder may have replaced the file that was opened here.
      struct stat locked {};
      struct stat named {};
      if (::fstat(fd.get(), &locked) == 0 && ::stat(path().c_str(), &named) == 0 &&
          locked.st_ino == named.st_ino && locked.st_dev == named.st_dev) {
        return fd;
      }
      continue;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
      ZLOG_ERROR("44081", "[%s] Failed to lock controller xml file : %s.", __func__,
                 Tarvik::Util::GetErrMsg(errno).c_str());
      return {};
    }
    if (!settings_.wait(kLockPause)) return {};
  }
}

ControllerFile::Read ControllerFile::Load(pt::ptree* tree, std::string* error) const {
  std::string text;
  if (const int code = ReadFileWhole(path(), kMaxSize, &text); code != 0) {
    *error = path() + ": " + Tarvik::Util::GetErrMsg(code);
    if (code == ENOENT) return Read::kMissing;
    return code == EFBIG ? Read::kForeign : Read::kUnreadable;
  }
  if (const Outcome parsed = Parse(text, tree); !parsed) {
    *error = path() + ": " + parsed.error();
    return Read::kForeign;
  }
  return Read::kDone;
}

Outcome ControllerFile::Parse(const std::string& text, pt::ptree* tree) {
  if (IsTooDeep(text)) return Outcome::Failed("nested too deeply");
  pt::ptree parsed;
  try {
    std::istringstream in(text);
    pt::read_xml(in, parsed);
  } catch (const pt::ptree_error& e) {
    return Outcome::Failed(e.what());
  }
  if (parsed.count(kRoot) != 1) return Outcome::Failed("no single element \"config\"");
  *tree = std::move(parsed);
  return Outcome::Done();
}

bool ControllerFile::Write(const pt::ptree& tree) const {
  std::string error;
  try {
    std::ostringstream out;
    pt::write_xml(out, tree, pt::xml_writer_make_settings<std::string>(' ', 0, kEncoding));
    if (WriteFileWhole(path(), out.str(), &error) == FileWrite::kDone) return true;
  } catch (const pt::ptree_error& e) {
    error = e.what();
  }
  ZLOG_ERROR("44081", "Failed to write controller info to file %s, error: %s", path().c_str(), error.c_str());
  Examine();
  return false;
}

void ControllerFile::Examine() const {
  if (::access(path().c_str(), F_OK) != 0) {
    ZLOG_ERROR("44083", "File %s does not exist", path().c_str());
    return;
  }
  if (::access(path().c_str(), W_OK) != 0) {
    ZLOG_ERROR("44084", "No write permission for file %s", path().c_str());
  }
  struct stat found {};
  if (::stat(path().c_str(), &found) != 0) return;
  ZLOG_INFO(
      "Get file %s stat, st_mode: %lu, uid: %ld, gid: %ld, size: %ld, last access: %s, last modify: %s, last "
      "status change: %s",
      path().c_str(), static_cast<unsigned long>(found.st_mode), static_cast<long>(found.st_uid),
      static_cast<long>(found.st_gid), static_cast<long>(found.st_size), TimeText(found.st_atime).c_str(),
      TimeText(found.st_mtime).c_str(), TimeText(found.st_ctime).c_str());
}

void ControllerFile::SetAside() const {
  const std::string aside = path() + ".rejected";
  // A second link, so that the path always has a file.
  if ((::unlink(aside.c_str()) != 0 && errno != ENOENT) || ::link(path().c_str(), aside.c_str()) != 0) {
    ZLOG_WARN("[%s] cannot keep %s: %s", __func__, aside.c_str(), Tarvik::Util::GetErrMsg(errno).c_str());
    return;
  }
  ZLOG_WARN("[%s] what cannot be read is kept as %s", __func__, aside.c_str());
}

int ControllerFile::Reload(std::string* reply) const {
  const std::string command = settings_.reload_command + " " + path();
  std::string error;
  const int result = Tarvik::Util::ReadCmdOutput(command, reply, &error);
  while (!reply->empty() && reply->back() == '\n') reply->pop_back();
  ZLOG_INFO("Executed cmd [%s] with return code [%d] and reply [%s]", command.c_str(), result,
            reply->c_str());
  if (result != 0) {
    if (reply->empty()) *reply = error;
    ZLOG_ERROR("44085", "Execution of cmd [%s] failed with return code [%d] and reply [%s]", command.c_str(),
               result, reply->c_str());
  }
  return result;
}

bool ControllerFile::IsTnUuidSaved(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  return !id.empty() && saved_id_ == id;
}

void ControllerFile::SetTnUuidSaved(const std::string& id) {
  const std::lock_guard lock(mutex_);
  saved_id_ = id;
}

}  // namespace zem::controller
