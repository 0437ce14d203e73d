#include "sim/host/host_state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "platform/core/unique_fd.h"
#include "sim/host/vm_journal.h"

namespace zem::sim {
namespace {

constexpr const char* kHostFile = "host.json";
constexpr const char* kNetworksFile = "opaque_networks.log";
constexpr const char* kVms = "vms";
constexpr const char* kFaultsFile = "faults";

std::string ReadFile(const std::string& path) {
  const std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + "." + std::to_string(::getpid()) + ".node";
  std::ofstream file(temporary, std::ios::trunc);
  file << text;
  file.close();
  if (!file || std::rename(temporary.c_str(), path.c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

Json Parse(const std::string& text, const std::string& what) {
  Json value(cJSON_ParseWithOpts(text.c_str(), nullptr, true));
  if (!value) throw std::runtime_error(what + " is no JSON");
  return value;
}

std::string TextOf(const cJSON* object, const char* member) {
  const char* text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, member));
  return text == nullptr ? std::string() : text;
}

}  // namespace

std::string HostState::DefaultRoot() {
  const char* root = std::getenv("ZEM_SIM_ROOT");
  return root != nullptr && *root != '\0' ? root : "/var/run/orlane/sim";
}

void HostState::Locked(const std::function<void()>& change) const {
  std::filesystem::create_directories(root_ + "/host");
  const UniqueFd lock(::open((root_ + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!lock || ::flock(lock.get(), LOCK_EX) != 0) {
    throw std::system_error(errno, std::generic_category(), root_ + "/lock");
  }
  change();
}

Json HostState::Read() const {
  const std::string text = ReadFile(Path(kHostFile));
  if (text.empty()) throw std::runtime_error("there is no host at " + root_);
  Json host = Parse(text, Path(kHostFile));
  VmJournal journal(VmFile());
  journal.Refresh();
  Json vms = JsonObject();
  for (const auto& [uuid, machine] : journal.machines()) {
    AddMember(vms.get(), uuid.c_str(), Json(cJSON_Duplicate(machine.get(), true)));
  }
  cJSON_DeleteItemFromObjectCaseSensitive(host.get(), kVms);
  AddMember(host.get(), kVms, std::move(vms));
  return host;
}

// Writes the VMs that a change at `path` may have touched.
void HostState::WriteVms(const std::string& path, const cJSON* vms) const {
  VmJournal journal(VmFile());
  journal.Refresh();
  const size_t dot = path.find('.');
  if (dot == std::string::npos) journal.Clear();
  const std::string only =
      dot == std::string::npos ? std::string() : path.substr(dot + 1, path.find('.', dot + 1) - dot - 1);
  const cJSON* machine = nullptr;
  cJSON_ArrayForEach(machine, vms) {
    if (only.empty() || only == machine->string) {
      journal.Put(machine->string, Json(cJSON_Duplicate(machine, true)));
    }
  }
}

void HostState::Set(const std::string& path, const std::string& value) const {
  Json parsed = Parse(value, "\"" + value + "\"");
  Locked([&] {
    const Json host = Read();
    cJSON* at = host.get();
    std::string name = path;
    for (size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.')) {
      const std::string member = name.substr(0, dot);
      at = cJSON_GetObjectItemCaseSensitive(at, member.c_str());
      if (!cJSON_IsObject(at)) throw std::runtime_error("the host has no \"" + member + "\" in " + path);
      name.erase(0, dot + 1);
    }
    if (name.empty()) throw std::runtime_error("a path needs a name at its end");
    cJSON_DeleteItemFromObjectCaseSensitive(at, name.c_str());
    AddMember(at, name.c_str(), std::move(parsed));
    Json vms(cJSON_DetachItemFromObjectCaseSensitive(host.get(), kVms));
    if (path == kVms || path.starts_with(std::string(kVms) + ".")) return WriteVms(path, vms.get());
    WriteFile(Path(kHostFile), JsonText(host.get()) + "\n");
  });
}

Json HostState::Networks() const {
  Json networks = JsonObject();
  std::ifstream file(Path(kNetworksFile));
  std::string line;
  while (std::getline(file, line)) {
    // The last line may be incomplete.
    Json change(cJSON_Parse(line.c_str()));
    if (!change) continue;
    const std::string op = TextOf(change.get(), "op");
    const std::string uuid = TextOf(change.get(), "uuid");
    if (op == "clear") {
      networks = JsonObject();
      continue;
    }
    cJSON_DeleteItemFromObjectCaseSensitive(networks.get(), uuid.c_str());
    if (op != "set") continue;
    cJSON_DeleteItemFromObjectCaseSensitive(change.get(), "op");
    AddMember(networks.get(), uuid.c_str(), std::move(change));
  }
  return networks;
}

std::vector<std::string> HostState::Faults() const {
  std::vector<std::string> rows;
  std::istringstream text(ReadFile(Path(kFaultsFile)));
  for (std::string row; std::getline(text, row);) rows.push_back(row);
  return rows;
}

void HostState::AddFault(const std::string& row) const {
  Locked([&] { WriteFile(Path(kFaultsFile), ReadFile(Path(kFaultsFile)) + row + "\n"); });
}

void HostState::ClearFaults() const {
  Locked([&] { std::filesystem::remove(Path(kFaultsFile)); });
}

void HostState::SetStart(const std::string& word, int polls) const {
  Locked([&] {
    WriteFile(Path("lum.start"), word + "\n");
    WriteFile(Path("lum.ready"), std::to_string(polls) + "\n");
  });
}

void HostState::KeepFramesWhole(bool on) const {
  Locked([&] {
    if (on) return WriteFile(Path("frames.whole"), "");
    std::filesystem::remove(Path("frames.whole"));
  });
}

Json HostState::Frames(size_t count, const std::string& part) const {
  return Lines("frames.log", count, part);
}

Json HostState::Reloads(size_t count) const { return Lines("reloads.log", count, ""); }

void HostState::SetReload(int code, const std::string& text) const {
  Locked([&] { WriteFile(Path("reload.result"), std::to_string(code) + " " + text + "\n"); });
}

Json HostState::Lines(const char* name, size_t count, const std::string& part) const {
  std::deque<std::string> last;
  std::ifstream file(Path(name));
  std::string line;
  while (std::getline(file, line)) {
    if (line.find(part) == std::string::npos) continue;
    last.push_back(std::move(line));
    if (last.size() > count) last.pop_front();
  }
  Json frames = JsonArray();
  for (const std::string& text : last) {
    if (Json frame(cJSON_Parse(text.c_str())); frame) AddItem(frames.get(), std::move(frame));
  }
  return frames;
}

}  // namespace zem::sim
