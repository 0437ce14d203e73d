#include "app/zema/controller/update_tn_uuid_task.h"

#include <boost/property_tree/ptree.hpp>

#include "app/zema/controller/controller_context.h"
#include "framework/log.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kThreadName = "zema:UpdateTNid";
constexpr const char* kTnUuid = "config.transportNode.UUID";

}  // namespace

void UpdateTnUuidInFile(const std::shared_ptr<ControllerContext>& context, const std::string& id) {
  const bool saved = context->file.IsTnUuidSaved(id);
  ZLOG_INFO("[%s] TN uuid saved with controller : [%d]", __func__, saved);
  if (saved) return;
  ZLOG_INFO("[%s] creating update tn uuid task", __func__);
  context->add_task(std::make_unique<UpdateTnUuidTask>(context, id));
}

void UpdateTnUuidTask::Run() {
  SetThreadName(kThreadName);
  ZLOG_INFO("[%s] Starting update tn uuid task", __func__);
  ControllerFile& file = context_->file;
  if (file.IsTnUuidSaved(id_)) {
    ZLOG_INFO("[%s] flag is already set", __func__);
    return;
  }
  bool missing = false;
  const UniqueFd lock = file.Lock(&missing);
  if (!lock && !missing) return;
  boost::property_tree::ptree tree;
  std::string error;
  if (file.Load(&tree, &error) != ControllerFile::Read::kDone) {
    ZLOG_ERROR("44081", "[%s] Failed to open controller xml file : %s.", __func__, error.c_str());
    return;
  }
  tree.put(kTnUuid, id_);
  ZLOG_INFO("[%s] Updating controller xml file with tnUUID [%s]", __func__, id_.c_str());
  if (!file.Write(tree)) return;
  std::string reply;
  if (const int result = file.Reload(&reply); result != 0) {
    ZLOG_ERROR("44085", "ZEMCLI set zem-proxy controllers file failed ret [%d], reply [%s]", result,
               reply.c_str());
    return;
  }
  file.SetTnUuidSaved(id_);
}

}  // namespace zem::zema
