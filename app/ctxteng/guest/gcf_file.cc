#include "app/ctxteng/guest/gcf_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <optional>
#include <string_view>

#include "framework/log/log.h"
#include "platform/core/unique_fd.h"

namespace Ctxt::EndvatUtil {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

constexpr off_t kMostBytes = 1 << 20;
constexpr int kMostComplaints = 20;

std::optional<std::string> Read(const std::string& path) {
  // Without O_NONBLOCK a pipe in the file's place would hold up the guest's callbacks.
  const zem::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (!fd || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kMostBytes)
    return std::nullopt;
  std::string text(static_cast<size_t>(info.st_size), '\0');
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::read(fd.get(), text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  text.resize(done);
  return text;
}

}  // namespace

std::string ReadVcUuidFromGcfFile(const std::string& path) {
  const auto text = Read(path);
  if (!text) {
    ZLOG_ERROR("ERR_CTXT_FILE_OPEN", "EndvatUtil: Failed to open file %s, file may not exist", path.c_str());
    return {};
  }
  std::string result;
  bool found = false;
  int complaints = 0;
  for (std::string_view rest = *text; !rest.empty();) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    const std::string line(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (std::count(line.begin(), line.end(), '=') != 1) {
      if (++complaints <= kMostComplaints)
        ZLOG_ERROR("ERR_CTXT_GCF_FILE", "EndvatUtil: Malformed string %s in GCF File %s", line.c_str(),
                   path.c_str());
      continue;
    }
    const size_t equals = line.find('=');
    const std::string key = boost::trim_copy(line.substr(0, equals));
    if (found || !boost::iequals(key, "vc.uuid")) continue;
    found = true;
    result = boost::trim_copy(line.substr(equals + 1));
    std::erase(result, '"');
  }
  return result;
}

std::string CanonicalVcUuid(const std::string& nc_vc_uuid) {
  constexpr size_t kSize = 36;
  std::string result;
  for (const char c : nc_vc_uuid) {
    if (c == ' ' || c == '-') continue;
    const size_t at = result.size();
    if (at == 8 || at == 13 || at == 18 || at == 23) result += '-';
    result += c;
  }
  return result.size() == kSize ? result : std::string();
}

}  // namespace Ctxt::EndvatUtil
