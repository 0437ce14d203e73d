// The configuration file of a guest is its owner's, and the engine's options an operator's: whatever is in
// them, what is read keeps its bounds.

#include <sys/mman.h>
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/ctxteng/engine/ctxt_options.h"
#include "app/ctxteng/guest/gcf_file.h"
#include "tests/support/silent_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  const int file = ::memfd_create("input", MFD_CLOEXEC);
  if (file < 0 || ::write(file, data, size) != static_cast<ssize_t>(size)) std::abort();
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  const std::string uuid = Ctxt::EndvatUtil::ReadVcUuidFromGcfFile(path);
  if (uuid.find('"') != std::string::npos || uuid.size() > size) std::abort();
  const std::string key = Ctxt::EndvatUtil::CanonicalVcUuid(uuid);
  if (!key.empty() && key.size() != 36) std::abort();
  boost::property_tree::ptree whole;
  boost::property_tree::ptree engine;
  Ctxt::CtxtCore::Settings settings;
  if (Ctxt::LoadCtxtOptions(path, &whole, &engine, &settings)) {
    const bool fits = settings.listen_port.size() - 1 < 5 && settings.worker_threads.size() - 1 < 4 &&
                      settings.max_events_per_vm.size() - 1 < 2 && settings.client_ids != 0;
    if (!fits) std::abort();
  }
  ::close(file);
  return 0;
}
