#pragma once

#include <boost/intrusive_ptr.hpp>
#include <memory>
#include <string>
#include <string_view>

#include "app/supportbundle/support_bundle_status_check_thread.h"
#include "app/supportbundle/support_bundle_worker_thread.h"
#include "app/supportbundle/worker_info.h"
#include "mpaclient/vertical/vertical_client.h"

namespace zem {
class WorkGroup;
}

namespace zem::Tarvik {

/// The application of support bundles: answers the manager's three requests (make a bundle, what has become
/// of it, cancel it) at once, out of the record of the one bundle; two threads do the work and watch over it.
///
/// Threads: `Start` and `Stop` by the main thread; the virtual operations from any.
class SupportBundleClient {
 public:
  explicit SupportBundleClient(AsioZemProvider& provider, BundleScripts scripts = BundleScripts());
  virtual ~SupportBundleClient();
  SupportBundleClient(const SupportBundleClient&) = delete;
  SupportBundleClient& operator=(const SupportBundleClient&) = delete;

  /// Handles a message of the type `type_id`; one of another type is ignored.
  virtual void HandleMessage(const std::string& reply_to, const std::string& correlation_id,
                             const std::string& type_id, const void* payload, size_t length);
  /// Takes a record of the manager.
  virtual void Receive(const VerticalRecord& message);
  virtual void SendStatus(const std::string& generate_id, BundleStatus status, const std::string& text,
                          const std::string& reply_to, const std::string& correlation_id);

  [[nodiscard]] bool Start();
  void Stop();

 private:
  /// The road back of one request.
  struct Road {
    const std::string& reply_to;
    const std::string& correlation_id;
  };
  using Handler = void (SupportBundleClient::*)(std::string_view payload, const Road& road);
  struct Message {
    const char* type_id;
    Handler handler;
  };
  static const Message kMessages[3];

  void Generate(std::string_view payload, const Road& road);
  void Status(std::string_view payload, const Road& road);
  void Cancel(std::string_view payload, const Road& road);
  void RefuseUnparsed(const char* text, const Road& road);

  AsioZemProvider& provider_;
  WorkerInfo info_;
  const boost::intrusive_ptr<SupportBundleStatusCheckThread> status_thread_;
  const boost::intrusive_ptr<SupportBundleWorkerThread> worker_thread_;
  boost::intrusive_ptr<WorkGroup> work_group_;
  VerticalClient vertical_;
};

}  // namespace zem::Tarvik
