#include "app/controller/update_tn_uuid_task.h"

#include <algorithm>
#include <boost/property_tree/ptree.hpp>

#include "app/controller/controller_context.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "platform/core/thread_name.h"

namespace zem::controller {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kThreadName = "zema:UpdateTNid";
constexpr Duration kLongestDelay = std::chrono::minutes(10);
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
  if (context_->file.IsTnUuidSaved(id_)) {
    ZLOG_INFO("[%s] flag is already set", __func__);
    return;
  }
  if (!Update()) TryLater();
}

bool UpdateTnUuidTask::Update() {
  ControllerFile& file = context_->file;
  bool missing = false;
  const UniqueFd lock = file.Lock(&missing);
  if (!lock && !missing) return false;
  boost::property_tree::ptree tree;
  std::string error;
  if (const auto read = file.Load(&tree, &error); read != ControllerFile::Read::kDone) {
    ZLOG_ERROR("44081", "[%s] Failed to open controller xml file : %s.", "Run", error.c_str());
    // The next list of controllers creates a missing file and writes the id into it.
    if (read == ControllerFile::Read::kMissing) return true;
    // The proxy cannot parse the file either, so setting it aside loses no controllers.
    if (read != ControllerFile::Read::kForeign) return false;
    file.SetAside();
  }
  tree.put(kTnUuid, id_);
  ZLOG_INFO("[%s] Updating controller xml file with tnUUID [%s]", "Run", id_.c_str());
  if (!file.Write(tree)) return false;
  std::string reply;
  if (const int result = file.Reload(&reply); result != 0) {
    ZLOG_ERROR("44085", "ZEMCLI set zem-proxy controllers file failed ret [%d], reply [%s]", result,
               reply.c_str());
    return false;
  }
  file.SetTnUuidSaved(id_);
  return true;
}

void UpdateTnUuidTask::TryLater() {
  context_->add_task_later(
      next_delay_,
      [weak = std::weak_ptr<ControllerContext>(context_), id = id_,
       next = std::min<Duration>(2 * next_delay_, kLongestDelay)]() -> std::unique_ptr<Runnable> {
        const auto live = weak.lock();
        // The host has another id now, or none.
        if (!live || live->host.id() != id) return nullptr;
        return std::make_unique<UpdateTnUuidTask>(live, id, next);
      });
}

}  // namespace zem::controller
