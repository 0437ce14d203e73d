#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <list>
#include <memory>
#include <string>

#include "app/controller/conn_config.h"
#include "framework/tasks/mpa_message_task.h"
#include "proto/config/config.pb.h"

namespace zem::controller {

struct ControllerContext;

/// Merges one list of the manager into the controllers' file and has the proxy process read it.
///
/// A list with one bad entry is refused as a whole.  The tree of the file and its entries belong to the task,
/// so a refused list leaves nothing behind for the next.
class ControllerListHandlerTask final : public MpaMessageTask<void, orlane::zem::config::MpLcpMsg> {
 public:
  using ConnConfig = controller::ConnConfig;

  ControllerListHandlerTask(std::shared_ptr<ControllerContext> context, std::string correlation_id,
                            std::string reply_to, orlane::zem::config::MpLcpMsg message);
  ~ControllerListHandlerTask() override;

  void Run() override { HandleControllerInfo(); }

 private:
  enum class Operation { kAdd, kDelete };

  void HandleControllerInfo();
  [[nodiscard]] bool LoadControllerInfoFile();
  [[nodiscard]] bool ProcessController(const orlane::zem::config::ControllerInfoMsg& controller);
  void MergeConnection(ConnConfig config);
  void ConfigViewUpdateConnID(const ConnConfig& config, Operation operation, int id);
  void UpdateControllerInfo(bool cleanup);
  std::string TransportNodeId() const;
  void FlushControllerInfoFile(bool cleanup);
  void ReplaceTornFile();
  boost::property_tree::ptree& ConnectionList();

  const std::shared_ptr<ControllerContext> context_;
  const std::unique_ptr<boost::property_tree::ptree> tree_;
  std::list<ConnConfig> connections_;
  int next_id_ = 1;
  bool torn_ = false;  // the file could not be parsed
};

}  // namespace zem::controller
