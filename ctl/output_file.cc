#include "ctl/output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ctl/outcome.h"

namespace zem::ctl {

void WriteOutputFile(const std::string& path, const std::string& bytes) {
  const std::string draft = path + ".tmp";
  std::FILE* const file = std::fopen(draft.c_str(), "we");
  bool good = file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  int reason = errno;
  if (file != nullptr && std::fclose(file) != 0 && good) {
    good = false;
    reason = errno;
  }
  if (good && std::rename(draft.c_str(), path.c_str()) == 0) return;
  if (good) reason = errno;
  std::remove(draft.c_str());
  throw Failure(kDegraded, path + " cannot be written: " + std::strerror(reason));
}

}  // namespace zem::ctl
