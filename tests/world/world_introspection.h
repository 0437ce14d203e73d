#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "app/ctxteng/introspection/surroundings.h"
#include "proto/covedb/covedb.pb.h"
#include "tests/app/ctxteng/introspection/mux_store.h"

namespace zem::covedb {
class CoveDbClientInterface;
}
namespace zem::sim {
class Store;
}
namespace zem::upm {
class UPMService;
}
namespace Ctxt {
class OuviConfig;
}

namespace zem::world {

/// Guest introspection in the world: solutions, profiles and rules in the store, a multiplexer that dies and
/// forgets, service VMs that come and go, and what must be true of all that at quiet.
///
/// Threads: the thread of the life.
class WorldIntrospection {
 public:
  WorldIntrospection();
  ~WorldIntrospection();

  void StartAgent(const std::shared_ptr<covedb::CoveDbClientInterface>& store);
  void StopAgent();
  /// The node's profile service, while the agent runs.
  const std::shared_ptr<upm::UPMService>& profiles() const { return profiles_; }

  using Modify = std::function<void(const orlane::zem::covedb::ModifyRequestMsg& request)>;
  /// A transaction of one to five random changes of the store's objects.
  void ChangeObjects(std::mt19937_64& random, const Modify& modify);
  /// The multiplexer dies with all that it knows, or comes back.
  void BounceMux(std::mt19937_64& random);
  /// A partner's service VM leaves the multiplexer or connects to it again.
  void MoveServiceVm(std::mt19937_64& random);

  /// Multiplexer and service VMs are there.
  void Calm();
  /// Empty when the multiplexer has exactly what the store says and no alarm stands.
  std::vector<std::string> Check(const sim::Store& store);

 private:
  class Alarm final : public Ctxt::PartnerAlarm {
   public:
    void Start() override {}
    bool Raise(const std::string& id) override;
    bool Reset(const std::string& id) override;
    void ResetAll(const std::string& id) override;
    void Shutdown() override;
    std::set<std::string> raised();

   private:
    std::mutex mutex_;  // guards raised_
    std::set<std::string> raised_;
  };
  class Health final : public Ctxt::ConfigHealth {
   public:
    void SendStatus(uint32_t, const std::string&) override {}
  };

  void SetMux(bool there);
  void SetServiceVm(const std::string& solution, bool there);

  const std::shared_ptr<Ctxt::test::MuxStore> mux_ = std::make_shared<Ctxt::test::MuxStore>();
  const std::shared_ptr<Alarm> alarm_ = std::make_shared<Alarm>();
  const std::shared_ptr<Health> health_ = std::make_shared<Health>();
  std::shared_ptr<upm::UPMService> profiles_;
  std::unique_ptr<Ctxt::OuviConfig> ouvi_;
  bool begun_ = false;
  bool mux_there_ = true;
  std::set<std::string> away_;  // solutions whose service VM is away
};

}  // namespace zem::world
