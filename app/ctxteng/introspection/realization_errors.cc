#include "app/ctxteng/introspection/realization_errors.h"

#include <algorithm>
#include <list>
#include <utility>

#include "covedbclient/covedb_client_interface.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "proto/covedb/covedb.pb.h"

namespace Ctxt {
namespace {

using orlane::zem::covedb::RealizationErrorMsg;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
// The realization writes its own under another number.
constexpr uint32_t kIntrospectionStatus = 13;
constexpr size_t kMostErrors = 1000;

bool Lists(const RealizationErrorMsg& error, const std::string& entity) {
  return std::any_of(error.entity().begin(), error.entity().end(),
                     [&entity](const auto& uuid) { return zem::UuidText(uuid) == entity; });
}

}  // namespace

void RealizationErrors::SetStore(std::shared_ptr<zem::covedb::CoveDbClientInterface> store) {
  std::lock_guard lock(mutex_);
  store_ = std::move(store);
}

void RealizationErrors::Add(Code code, const std::string& text, const std::string& entity) {
  ZLOG_INFO("AMConfig : Adding error message");
  const auto uuid = code == kRefused ? std::nullopt : zem::ParseUuid(entity);
  {
    std::lock_guard lock(mutex_);
    const bool there = std::any_of(errors_.begin(), errors_.end(), [&](const RealizationErrorMsg& error) {
      return error.code() == code && (uuid ? Lists(error, zem::UuidText(*uuid)) : error.entity().empty());
    });
    if (there) return;
    RealizationErrorMsg error;
    error.set_code(code);
    error.set_error_text(text);
    if (uuid) zem::SetUuid(*uuid, error.add_entity());
    if (errors_.size() == kMostErrors) errors_.erase(errors_.begin());
    errors_.push_back(std::move(error));
  }
  WriteErrors();
}

template <class Predicate>
bool RealizationErrors::Erase(Predicate predicate) {
  std::lock_guard lock(mutex_);
  return std::erase_if(errors_, predicate) != 0;
}

void RealizationErrors::Clear(const std::string& entity) {
  ZLOG_DEBUG("AMConfig : Clear error message");
  ZLOG_DEBUG("AMConfig : Clearing error for entity");
  const auto uuid = zem::ParseUuid(entity);
  if (!uuid) return;
  const std::string text = zem::UuidText(*uuid);
  if (!Erase([&text](const RealizationErrorMsg& error) { return Lists(error, text); })) return;
  ZLOG_INFO("AMConfig : Cleared Error for Entity");
  WriteErrors();
}

void RealizationErrors::Clear(Code code) {
  if (Erase([code](const RealizationErrorMsg& error) { return error.code() == code; })) WriteErrors();
}

// One thread at a time writes, else a list could overtake the one that replaces it.  Whoever finds a writer
// leaves the newer list to it: the store's client calls from here and is called, so no lock may be held.
void RealizationErrors::WriteErrors() {
  {
    std::lock_guard lock(mutex_);
    unwritten_ = true;
    if (writing_) return;
    writing_ = true;
  }
  for (;;) {
    orlane::zem::covedb::RuntimeStatusMsg status;
    std::shared_ptr<zem::covedb::CoveDbClientInterface> store;
    {
      std::lock_guard lock(mutex_);
      writing_ = std::exchange(unwritten_, false);
      if (!writing_) return;
      store = store_;
      status.set_status(kIntrospectionStatus);
      for (const RealizationErrorMsg& error : errors_) *status.add_realization_error() = error;
    }
    if (store) Write(*store, status);
  }
}

void RealizationErrors::Write(zem::covedb::CoveDbClientInterface& store,
                              const orlane::zem::covedb::RuntimeStatusMsg& status) {
  ZLOG_INFO("AMConfig : Writing error message");
  std::list<orlane::zem::covedb::ModifyRequestMsg> requests(1);
  auto* const put = requests.back().add_modify_msg()->mutable_put_msg();
  put->set_object_type(orlane::zem::covedb::RUNTIME_STATUS);
  put->set_object(status.SerializeAsString());
  store.Modify(std::move(requests), {});
}

}  // namespace Ctxt
