#include "app/zemda/records/covedb_connection_handler.h"

#include <utility>

#include "covedbclient/covedb_client_interface.h"
#include "framework/log/log.h"
#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

}  // namespace

const std::shared_ptr<CoveDBConnectionHandler>& CoveDBConnectionHandler::GetInstance() {
  // Never destroyed: the store's client may call until the process ends.
  static const auto& instance =
      *new std::shared_ptr<CoveDBConnectionHandler>(std::make_shared<CoveDBConnectionHandler>());
  return instance;
}

void CoveDBConnectionHandler::connect(std::shared_ptr<zem::covedb::CoveDbClientInterface> store) {
  {
    const std::lock_guard lock(mutex_);
    store_ = store;
  }
  // Runs with the client's locks held, so it takes none of ours.
  store->AddChannelStatusCallback([](bool up) {
    if (up) {
      ZLOG_INFO("CoveDB Channel connected.");
    } else {
      ZLOG_INFO("CoveDB Channel disconnected.");
    }
  });
}

std::shared_ptr<zem::covedb::CoveDbClientInterface> CoveDBConnectionHandler::Store() {
  const std::lock_guard lock(mutex_);
  return store_;
}

bool CoveDBConnectionHandler::modify(std::list<orlane::zem::covedb::ModifyRequestMsg> requests,
                                     std::function<void()> done) {
  const auto store = Store();
  if (store == nullptr) {
    ZLOG_ERROR("MPA20025", "modify() invoked without calling connect(). Aborting call.");
    return false;
  }
  store->Modify(std::move(requests), std::move(done));
  return true;
}

bool CoveDBConnectionHandler::get(const std::list<orlane::zem::covedb::ObjectRequestMsg>& requests,
                                  ObjectsCallback callback) {
  const auto store = Store();
  if (store == nullptr) {
    ZLOG_ERROR("MPA20026", "get() invoked without calling connect(). Aborting call.");
    return false;
  }
  return store->Get(requests, std::move(callback), zem::covedb::kDefaultVDb);
}

}  // namespace ZemDa
