#include "sim/data/data_folder.h"

#include <filesystem>

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

fs::path Find() {
  const fs::path program = fs::read_symlink("/proc/self/exe");
  for (fs::path folder = program.parent_path(); folder.has_relative_path(); folder = folder.parent_path()) {
    if (fs::is_directory(folder / "lib/zem-node")) return folder / "lib/zem-node";
  }
  throw fs::filesystem_error("no folder lib/zem-node above the program", program,
                             std::make_error_code(std::errc::no_such_file_or_directory));
}

DataFolder Resolve() {
  const fs::path folder = Find();
  return {fs::canonical(folder / "host"), fs::canonical(folder / "agent-scripts"),
          fs::canonical(folder / "libraries"), fs::canonical(folder / "scenarios")};
}

}  // namespace

const DataFolder& DataFolder::Get() {
  static const DataFolder folder = Resolve();
  return folder;
}

}  // namespace zem::sim
