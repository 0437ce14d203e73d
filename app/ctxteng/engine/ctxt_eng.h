#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/cli/cli_command.h"
#include "framework/status/part_state.h"

namespace zem {
class AsioZemProvider;
namespace covedb {
class CoveDbClientInterface;
}
namespace upm {
class UPMService;
}
}  // namespace zem

namespace Ctxt {
struct EngineParts;
}

/// The context engine as the agent sees it: options, start and stop.
///
/// Threads: start, wait and stop by the main thread, the commands on the command server's.
class CtxtEng {
 public:
  using MakeParts = std::function<Ctxt::EngineParts(zem::AsioZemProvider& provider)>;

  /// `store` may be null.
  CtxtEng(zem::AsioZemProvider& provider, std::shared_ptr<zem::covedb::CoveDbClientInterface> store,
          std::shared_ptr<zem::upm::UPMService> profiles);
  /// With other parts, and another options file, for a test.
  CtxtEng(zem::AsioZemProvider& provider, std::shared_ptr<zem::covedb::CoveDbClientInterface> store,
          std::shared_ptr<zem::upm::UPMService> profiles, MakeParts make_parts, std::string options_path);
  ~CtxtEng();
  CtxtEng(const CtxtEng&) = delete;
  CtxtEng& operator=(const CtxtEng&) = delete;

  /// Returns 0, or -1 when the options file is unusable.  A start that fails later is logged, and the agent
  /// goes on without a working engine.
  int Start();
  /// Blocks until the engine has started, has failed, or a minute has passed.
  void WaitForStart();
  void Stop();

  /// The states of the engine, the guest event library, and the Kafka clients.  From any thread.
  void Describe(std::vector<zem::Tarvik::PartState>* parts) const;

  /// "get/protocolMask", "set/protocolMask", "get/idfwStatus", "get/idsStatus", "get/guests".
  std::vector<zem::Tarvik::CliCommand> Commands();

 private:
  struct Options;

  bool LoadOptions();
  void InitializeCore();
  void SetFault(std::string CtxtEng::*fault, const char* what);

  zem::AsioZemProvider& provider_;
  const std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;
  const std::shared_ptr<zem::upm::UPMService> profiles_;
  const MakeParts make_parts_;
  const std::unique_ptr<Options> options_;
  mutable std::mutex mutex_;  // guards what follows
  std::string engine_fault_;
  std::string library_fault_;
};
