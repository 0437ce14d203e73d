#pragma once

#include <boost/intrusive_ptr.hpp>
#include <memory>
#include <optional>
#include <vector>

#include "framework/cli/cli_command.h"
#include "framework/cli/cli_server.h"
#include "framework/dataplane/lcp_adapter.h"
#include "framework/node/options.h"
#include "framework/status/part_state.h"

namespace zem {
class AsioZemProvider;
class WorkGroup;
namespace covedb {
class CoveDbClientInterface;
}
namespace upm {
class UPMService;
}
}  // namespace zem

namespace zem::Tarvik {

class StatusBoard;

/// One application of the agent, as the main thread sees it.
///
/// Threads: all operations but Describe by the main thread, in the order in which they are declared.
class Application {
 public:
  virtual ~Application() = default;

  /// What operators may ask of the application, also while it is not started.  The application outlives the
  /// command server.
  virtual std::vector<CliCommand> Commands() { return {}; }
  /// Appends how the application's parts are, with what it expects on this node: what is not wanted here is
  /// no fault.  From any thread, from the return of Start until Stop is called; memory work only.
  virtual void Describe(std::vector<PartState>* parts) { static_cast<void>(parts); }
  /// Returns false, after a log line, when the application does not serve.
  [[nodiscard]] virtual bool Start() = 0;
  /// Returns when the application has come so far that the proxy connection may come up.
  virtual void WaitStarted() {}
  virtual void Stop() = 0;
};

/// The objects that the agent shares with its applications.
struct ApplicationContext {
  AsioZemProvider& provider;
  /// Null on a node type without a local store.
  std::shared_ptr<covedb::CoveDbClientInterface> store;
  /// Null outside the host role.
  boost::intrusive_ptr<LcpAdapter> lcp_adapter;
  boost::intrusive_ptr<CliServer> cli_server;
  std::shared_ptr<upm::UPMService> update_service;
  /// For loops that live as long as the application, and for work that may take its time.
  boost::intrusive_ptr<WorkGroup> framework_group;
  /// Null for a test that asks for no status.
  std::shared_ptr<StatusBoard> status;
};

/// What a start that fails means for the agent.
enum class StartFailure {
  kServesWithout,  // the agent goes on; the application has logged why it does not serve
  kEndsAgent,      // the agent's start throws
};

/// A row of the table of applications.
struct ApplicationRow {
  const char* name;
  /// Null when the options do not want the application.
  std::unique_ptr<Application> (*make)(const ApplicationContext& context);
  /// The option that has to be on; nothing for an application without one.
  std::optional<Mode> option;
  /// Started only in the host role.
  bool host_role = false;
  StartFailure start_failure = StartFailure::kServesWithout;
  /// The main thread's name from the start on, inherited by the threads of the application; null keeps it.
  const char* thread_name = nullptr;
  /// The line before the start; null for none.
  const char* start_line = nullptr;
  /// The line before the wait; null for an application that is not waited for.
  const char* wait_line = nullptr;
  /// The names of the two steps in the start watchdog's lines; null keeps the step.  The first is also the
  /// application's name in the status.
  const char* start_step = nullptr;
  const char* wait_step = nullptr;
  /// The applications are created and stopped in ascending order of these ranks, and destroyed in descending
  /// order of creation.  The gaps are for applications that are still to come.
  int create_rank = 0;
  int stop_rank = 0;
};

}  // namespace zem::Tarvik
