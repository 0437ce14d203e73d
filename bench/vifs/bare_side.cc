#include "bench/vifs/bare_side.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/ports/port_file.h"

namespace zem::bench {
namespace {

namespace port_props = zema::port_props;

constexpr size_t kMostThreads = 30;

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void Good(uint32_t result, const char* call) { Require(result == 0, std::string(call) + " failed"); }

}  // namespace

BareSide::BareSide(World& world)
    : world_(world),
      calls_(world.library().calls()),
      waiters_([] {
        std::vector<std::unique_ptr<Waiter>> made;
        for (size_t i = 0; i < kMostThreads; ++i) made.push_back(std::make_unique<Waiter>());
        return made;
      }()),
      instant_([this](const std::string& rpc_id, std::unique_ptr<zema::PortAttached> port) {
        Waiter& waiter = *waiters_[std::stoul(rpc_id)];
        const std::lock_guard lock(waiter.mutex);
        waiter.port = std::move(port);
        waiter.answered.notify_one();
      }) {}

std::vector<double> BareSide::Attach(const std::vector<Vif>& vifs, size_t threads, bool in_turn) {
  std::vector<double> took(vifs.size());
  std::atomic<size_t> next{0};
  std::mutex mutex;
  std::string failure;
  std::vector<std::thread> running;
  for (size_t number = 0; number < threads; ++number) {
    running.emplace_back([&, number] {
      try {
        for (size_t i = next++; i < vifs.size(); i = next++) {
          const double begun = Now();
          AttachOne(vifs[i], number, in_turn);
          took[i] = Now() - begun;
        }
      } catch (const std::exception& error) {
        const std::lock_guard lock(mutex);
        failure = error.what();
      }
    });
  }
  for (std::thread& thread : running) thread.join();
  Require(failure.empty(), failure);
  return took;
}

void BareSide::AttachOne(const Vif& vif, size_t number, bool in_turn) {
  Waiter& waiter = *waiters_[number];
  instant_.Ask(true, std::to_string(number), vif.id, World::kLs);
  std::unique_ptr<zema::PortAttached> port;
  {
    std::unique_lock lock(waiter.mutex);
    waiter.answered.wait(lock, [&] { return waiter.port != nullptr; });
    port = std::move(waiter.port);
  }
  std::unique_lock turn(turn_, std::defer_lock);
  if (in_turn) turn.lock();
  CreatePort(*port, vif);
}

void BareSide::Text(const std::string& port, const char* property, const std::string& value) {
  Good(calls_.port_data_set(World::kDvs, port.c_str(), property, value.c_str(),
                            static_cast<uint32_t>(value.size() + 1), DVS_PROPERTY_FLAGS),
       "PortDataSet");
}

void BareSide::CreatePort(const zema::PortAttached& attached, const Vif& vif) {
  const std::string& port = attached.port_id;
  void* buffer = nullptr;
  uint32_t length = 0;
  const auto absent = [&](const char* property) {
    Require(calls_.port_data_get(World::kDvs, port.c_str(), property, &buffer, &length) == DVS_NOT_FOUND,
            std::string("port has ") + property);
  };
  absent(port_props::kPortOpPending);
  Require(calls_.port_find(World::kDvs, port.c_str()) == DVS_NOT_FOUND, "the port is there");
  DVSData* data = nullptr;
  Good(calls_.data_alloc(&data), "Alloc");
  const auto add = [&](const char* name, const std::string& bytes) {
    Good(calls_.data_update(data, name, bytes.c_str(), static_cast<uint32_t>(bytes.size() + 1),
                            DVS_PROPERTY_FLAGS),
         "Update");
  };
  add(port_props::kAlias, port);
  const uint32_t cookie = 1;
  Good(calls_.data_update(data, port_props::kConnectId, &cookie, sizeof(cookie), DVS_PROPERTY_FLAGS),
       "Update");
  add(port_props::kBlock, port_props::kTrue);
  add(port_props::kBackingType, "zem");
  Good(calls_.data_serialize(data, DVS_FORMAT, &buffer, &length), "Serialize");
  Good(calls_.data_free(data), "Free");
  Good(calls_.port_add(World::kDvs, port.c_str(), buffer, length), "PortAdd");
  std::free(buffer);
  Text(port, port_props::kExternalId, vif.id);
  Text(port, port_props::kOpaqueNetworkId, attached.switch_id);
  absent(port_props::kPersistPath);
  const std::string path =
      *zema::PortFilePath(std::filesystem::path(vif.gcf_path).parent_path(), World::kDvs, port);
  Text(port, port_props::kPersistPath, path);
  for (const auto& [name, value] : attached.extra_configs) Text(port, name.c_str(), value);
  Require(zema::MakePortFileDirectories(path), "no directory");
  Good(calls_.persistent_port_state_get(World::kDvs, port.c_str(), DVS_FORMAT, &buffer, &length),
       "PersistentPortStateGet");
  Require(zema::WritePortFile(path, {static_cast<const char*>(buffer), length}) == 0, "no file");
  std::free(buffer);
  // The path of the file is asked for again, since the file is written after its port's properties.
  Good(calls_.port_data_get(World::kDvs, port.c_str(), port_props::kPersistPath, &buffer, &length),
       "PortDataGet");
  std::free(buffer);
}

}  // namespace zem::bench
