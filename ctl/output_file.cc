#include "ctl/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ctl/outcome.h"

namespace zem::ctl {

// The draft has a name that nobody can have prepared, and only its owner may read it, as it tells what the
// daemon is asked and answers.
void WriteOutputFile(const std::string& path, const std::string& bytes) {
  std::string draft = path + ".XXXXXX";
  const int fd = ::mkostemp(draft.data(), O_CLOEXEC);
  std::FILE* const file = fd < 0 ? nullptr : ::fdopen(fd, "w");
  bool good = file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() &&
              std::fflush(file) == 0 && ::fsync(fd) == 0;
  int reason = errno;
  if (file != nullptr && std::fclose(file) != 0 && good) {
    good = false;
    reason = errno;
  }
  if (good && std::rename(draft.c_str(), path.c_str()) == 0) return;
  if (good) reason = errno;
  if (fd >= 0) std::remove(draft.c_str());
  throw Failure(kDegraded, path + " cannot be written: " + std::strerror(reason));
}

}  // namespace zem::ctl
