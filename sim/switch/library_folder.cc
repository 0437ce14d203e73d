#include "sim/switch/library_folder.h"

#include <algorithm>
#include <filesystem>

#include "sim/data/data_folder.h"
#include "sim/switch/tree/state_tree.h"

namespace zem::sim {
namespace {

bool Known(const std::string& name, std::string* error) {
  const auto& names = LibraryFolder::Names();
  if (std::find(names.begin(), names.end(), name) != names.end()) return true;
  *error = "no library \"" + name + "\"";
  return false;
}

}  // namespace

const std::vector<std::string>& LibraryFolder::Names() {
  static const std::vector<std::string> names{"libklnPublic.so", "libvdl2kln.so", "libvdrkln.so",
                                              "libzemfw.so", "libEndvat.so"};
  return names;
}

std::string LibraryFolder::Built() { return DataFolder::Get().libraries; }

bool LibraryFolder::Install(std::string* error) const {
  std::error_code code;
  std::filesystem::create_directories(path_, code);
  if (code) {
    *error = path_ + ": " + code.message();
    return false;
  }
  return std::all_of(Names().begin(), Names().end(),
                     [&](const std::string& name) { return Restore(name, error); });
}

bool LibraryFolder::Remove(const std::string& name, std::string* error) const {
  if (!Known(name, error)) return false;
  if (tree::RemoveFile(path_ + "/" + name)) return true;
  *error = name + " is not there";
  return false;
}

bool LibraryFolder::Restore(const std::string& name, std::string* error) const {
  if (!Known(name, error)) return false;
  std::error_code code;
  std::filesystem::remove(path_ + "/" + name, code);
  std::filesystem::create_symlink(Built() + "/" + name, path_ + "/" + name, code);
  if (code) *error = name + ": " + code.message();
  return !code;
}

// The loader finds a function by a hash of its name and then compares the name.  The table of names is at the
// beginning of the file.  With another name there, the hash leads to an entry whose name does not match.
bool LibraryFolder::LackSymbol(const std::string& name, const std::string& symbol, std::string* error) const {
  if (!Known(name, error)) return false;
  auto bytes = tree::ReadFile(Built() + "/" + name);
  const std::string entry = std::string(1, '\0') + symbol + '\0';
  const size_t at = bytes && !symbol.empty() ? bytes->find(entry) : std::string::npos;
  if (at == std::string::npos) {
    *error = name + " has no function \"" + symbol + "\"";
    return false;
  }
  (*bytes)[at + 1] = '_';
  std::error_code code;
  std::filesystem::remove(path_ + "/" + name, code);
  if (tree::WriteFile(path_ + "/" + name, *bytes)) return true;
  *error = name + " cannot be written";
  return false;
}

}  // namespace zem::sim
