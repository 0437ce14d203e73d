#include "bench/vifs/world.h"

#include <stdlib.h>

#include <cstdio>
#include <stdexcept>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/ports/port_file.h"
#include "sim/switch/library_folder.h"
#include "sim/switch/tree/port_table.h"

namespace zem::bench {
namespace {

std::string Uuid(unsigned kind, size_t number) {
  char text[48];
  std::snprintf(text, sizeof(text), "%08x-0000-4000-8000-%012zu", kind, number);
  return text;
}

std::filesystem::path NewFolder(const std::filesystem::path& parent) {
  std::string pattern = parent / "zem-bench-XXXXXX";
  Require(::mkdtemp(pattern.data()) != nullptr, "no temporary folder in " + parent.string());
  return pattern;
}

}  // namespace

void Require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

World::World(const std::string& vms_folder) : library_(sim::LibraryFolder::Built() + "/libklnPublic.so") {
  const std::filesystem::path memory = "/dev/shm";
  path_ = NewFolder(std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path());
  vms_ = vms_folder.empty() ? path_ / "vms" : NewFolder(vms_folder);
  ::setenv("ZEM_SIM_ROOT", (path_ / "sim").c_str(), 1);
  state_ = std::make_unique<sim::SwitchState>();
  Require(state_->MakeSwitch({kDvs, "ks-1", "KLN", {kZone}, {"u1"}}), "the switch was not made");
  std::string error;
  Require(library_.Open(&error), error);
}

World::~World() {
  library_.Close();
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
  std::filesystem::remove_all(vms_, ignored);
}

void World::FillUpTo(size_t count) {
  for (; ports_ < count; ++ports_) {
    sim::ValueList properties;
    const auto text = [&](const char* name, const std::string& value) {
      properties.Update(name, {value.c_str(), value.size() + 1}, DVS_PROPERTY_FLAGS);
    };
    const std::string port = Uuid(1, ports_);
    text(zema::port_props::kAlias, port);
    text(zema::port_props::kOpaqueNetworkId, kLs);
    text(zema::port_props::kExternalId, Uuid(2, ports_));
    Require(sim::ports::Add(kDvs, port, properties) == 0, "a port was not made");
  }
}

std::vector<Vif> World::NewVifs(size_t count) {
  std::vector<Vif> vifs;
  for (size_t i = 0; i < count; ++i, ++vifs_) {
    const std::filesystem::path directory = vms_ / std::to_string(vifs_);
    std::filesystem::create_directories(directory);
    vifs.push_back({Uuid(3, vifs_), Uuid(4, vifs_), directory / "vm.cfg", Uuid(5, vifs_)});
  }
  return vifs;
}

void World::Remove(const std::vector<Vif>& vifs) {
  for (const Vif& vif : vifs) {
    Require(sim::ports::Remove(kDvs, vif.port) == 0, "port " + vif.port + " was not there");
    std::filesystem::remove_all(std::filesystem::path(vif.gcf_path).parent_path());
  }
}

void World::TakeMoved(const std::vector<Vif>& vifs) {
  for (const Vif& vif : vifs) {
    Require(state_->PortProperty(kDvs, vif.next_port, zema::port_props::kExternalId) == vif.id,
            "port " + vif.next_port + " has not its VIF");
    Require(!state_->PortProperty(kDvs, vif.port, zema::port_props::kExternalId),
            "port " + vif.port + " keeps its VIF");
    Require(sim::ports::Remove(kDvs, vif.next_port) == 0, "port " + vif.next_port + " was not there");
  }
}

void World::Check(const std::vector<Vif>& vifs) {
  for (const Vif& vif : vifs) {
    Require(state_->PortProperty(kDvs, vif.port, zema::port_props::kExternalId) == vif.id,
            "port " + vif.port + " has not its VIF");
    const auto file = zema::PortFilePath(std::filesystem::path(vif.gcf_path).parent_path(), kDvs, vif.port);
    Require(file && std::filesystem::file_size(*file) > 0, "port " + vif.port + " has no file");
  }
}

}  // namespace zem::bench
