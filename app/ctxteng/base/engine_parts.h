#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace orlane::zem::covedb {
class MonitorUpdateMsg;
}
namespace zem::covedb {
class CoveDbClientInterface;
}
namespace zem::upm {
class UPMService;
}

namespace Ctxt {

/// The bits of the client bitmap.
enum ClientBit : uint32_t { kSampleBit = 1, kIdfwBit = 2, kIdsBit = 4, kZemiBit = 8 };

/// What the engine tells the configuration of guest introspection.  On the library's threads; what it throws
/// is logged.
class IIntrospection {
 public:
  virtual ~IIntrospection() = default;
  virtual void Initialize(const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                          const std::shared_ptr<zem::upm::UPMService>& profiles) = 0;
  virtual void MuxConnected() = 0;
  virtual void MuxDisconnected() = 0;
  virtual void SvmConnected(const std::string& solution_id) = 0;
  virtual void SvmDisconnected(const std::string& solution_id) = 0;
  virtual void Shutdown() = 0;
};

/// What the engine tells the context health.  As IIntrospection.
class IContextHealth {
 public:
  virtual ~IContextHealth() = default;
  virtual void Initialize() = 0;
  /// The multiplexer has a health report.
  virtual void ProcessHealth() = 0;
  virtual void SendError(uint32_t code, const std::string& text) = 0;
  virtual void Shutdown() = 0;
};

/// The channel to the manager, as far as the engine starts and stops it.
class IEngineChannel {
 public:
  virtual ~IEngineChannel() = default;
  virtual void Initialize() = 0;
  virtual void Shutdown() = 0;
};

/// Updates of the local store that concern a client.  On the store client's threads; an operation hands over
/// and returns.
///
/// Each connection to the store begins with all objects that it has.  `StoreBegins` comes before them and
/// `StoreComplete` behind them: what a client knows and has not been told again in between was deleted while
/// the store was away.  Objects may change meanwhile, and another beginning may come before the end.
class IStoreUpdates {
 public:
  virtual ~IStoreUpdates() = default;
  virtual void OnFeatureToggle(const orlane::zem::covedb::MonitorUpdateMsg& update) = 0;
  virtual void OnGlobalConfig(const orlane::zem::covedb::MonitorUpdateMsg&) {}
  virtual void OnRule(const orlane::zem::covedb::MonitorUpdateMsg&) {}
  virtual void OnRuleSection(const orlane::zem::covedb::MonitorUpdateMsg&) {}
  virtual void StoreBegins() = 0;
  virtual void StoreComplete() = 0;
};

}  // namespace Ctxt
