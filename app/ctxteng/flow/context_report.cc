#include "app/ctxteng/flow/context_report.h"

#include <memory>
#include <new>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/flow/ip_address.h"
#include "framework/log/log.h"
#include "platform/core/uuid.h"
#include "proto/context/pace.pb.h"

namespace Ctxt::PaceClient {
namespace {

namespace pace = orlane::zem::pace;

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

void Fill(const OsInfo& os, const GiInfo& gi, pace::OsInfoMsg* msg) {
  msg->set_os_type(os.os_type);
  if (os.os_type == kWindows) {
    pace::WinInfoMsg* const win = msg->mutable_win_info();
    win->set_major(os.major_version);
    win->set_minor(os.minor_version);
    win->set_build(os.build_number);
    win->set_sp(os.service_pack);
    win->set_sp_major(os.service_pack_major);
    win->set_sp_minor(os.service_pack_minor);
    win->set_product_type(os.product_type);
    win->set_gi_service_version(gi.service_version);
    win->set_gi_net_driver_version(gi.network_driver_version);
    win->set_gi_file_driver_version(gi.driver_version);
    win->set_gi_umc_version(gi.umc_version);
    win->set_tools_version(gi.tools_version);
  } else if (os.os_type == kLinux) {
    pace::LinInfoMsg* const lin = msg->mutable_lin_info();
    lin->set_lsb_version(os.lsb_version);
    lin->set_dist_id(os.distribution_id);
    lin->set_dist_desc(os.distribution_description);
    lin->set_dist_rel(os.distribution_release);
    lin->set_dist_code(os.distribution_codename);
    lin->set_kernel_rel(os.kernel_release);
    lin->set_kernel_version(os.kernel_version);
    lin->set_os(os.os);
    lin->set_gi_service_version(gi.service_version);
    lin->set_gi_net_driver_version(gi.network_driver_version);
  }
}

void Fill(const VmEvent& event, pace::VmEventMsg* msg) {
  if (const auto bios = zem::ParseUuid(event.bios_uuid)) zem::SetUuid(*bios, msg->mutable_vm_bios_uuid());
  msg->set_vm_path(event.gcf_path);
  Fill(event.os, event.gi, msg->mutable_os_info());
  msg->set_timestamp(event.timestamp);
  msg->set_event_type(event.event_type);
}

void Fill(const ServiceEvent& event, pace::ServiceEventMsg* msg) {
  msg->set_timestamp(event.connection->timestamp);
  msg->set_event_type(event.type);
  static_cast<void>(FillIpAddress(event.connection->dest_ip, msg->mutable_dest_ip()));
  msg->set_dest_port(event.connection->dest_port);
  msg->set_process_map_key(*event.process_map_key);
}

void Fill(const UserEvent& event, pace::UserEventMsg* msg) {
  msg->set_user_map_key(event.session->dfw_key);
  msg->set_session_id(static_cast<uint32_t>(event.session->session_id));
  msg->set_event_type(event.type);
  msg->set_timestamp(event.session->timestamp);
  // Most sessions are local ones.
  if (!event.session->client_ip.empty()) {
    static_cast<void>(FillIpAddress(event.session->client_ip, msg->mutable_client_ip()));
  }
}

void Fill(const std::pair<const std::string, UserInfo>& user, pace::UserMapEntryMsg* msg) {
  msg->set_key(user.first);
  pace::UserInfoMsg* const info = msg->mutable_user_info();
  info->set_dfw_key(user.first);
  info->set_user_id(user.second.sid);
  info->set_uid(user.second.uid);
  info->set_name(user.second.user_name);
  info->set_domain(user.second.domain_name);
  info->set_group_count(user.second.group_count);
  info->set_group_hash(user.second.group_hash);
}

void Fill(const std::pair<const std::string, ProcessInfo>& process, pace::ProcessMapEntryMsg* msg) {
  msg->set_key(process.first);
  const ConnInfo& first = *process.second.first;
  pace::ProcessInfoMsg* const info = msg->mutable_process_info();
  info->set_process_dfw_key(first.process_dfw_key);
  info->set_pid(process.second.pid);
  info->set_creation_time(process.second.ctime);
  info->set_process_hash(first.process_hash);
  info->set_name(first.process_name);
  info->set_cmdline(first.cmdline);
  info->set_user_id(first.sid);
  info->set_uid(first.uid);
  info->set_user_dfw_key(first.user_dfw_key);
}

// Calls `add` with each thing that the guest did; it gets a function that puts the thing into a message.
template <class Add>
void ForEach(const VmInfo& guest, const Add& add) {
  for (const auto& event : guest.vm_events) {
    add([&](pace::VmInfoMsg* info) { Fill(*event, info->add_vm_event()); });
  }
  for (const UserEvent& event : guest.user_events) {
    add([&](pace::VmInfoMsg* info) { Fill(event, info->add_user_event()); });
  }
  for (const ServiceEvent& event : guest.service_events) {
    add([&](pace::VmInfoMsg* info) { Fill(event, info->add_service_event()); });
  }
  for (const auto& user : guest.users) {
    add([&](pace::VmInfoMsg* info) { Fill(user, info->add_user_entry()); });
  }
  for (const auto& process : guest.processes) {
    add([&](pace::VmInfoMsg* info) { Fill(process, info->add_process_entry()); });
  }
}

class Report {
 public:
  using Send = ReportBuilder::Send;

  Report(SiteId::Halves site, pace::PaceContextInfoMsg* message, const Send& send)
      : site_(site), send_(send), message_(message) {
    if (site_ == SiteId::Halves()) {
      ZLOG_CTX_ERROR(735, "Zemi: Error during retreiving site id. Getting default value 0");
    }
    Begin();
  }

  void Add(const boost::uuids::uuid& vc_uuid, const VmInfo& guest) {
    pace::VmMapEntryMsg* entry = NewEntry(vc_uuid);
    ForEach(guest, [&](const auto& fill) { fill(entry->mutable_vm_info()); });
    size_t size = SizeOf(*entry);
    if (size_ + size > kMostReportBytes) {
      message_->mutable_guest_info()->mutable_vm_map_entry()->RemoveLast();
      if (size > kMostReportBytes) return AddInParts(vc_uuid, guest);
      Next();
      entry = NewEntry(vc_uuid);
      ForEach(guest, [&](const auto& fill) { fill(entry->mutable_vm_info()); });
      size = SizeOf(*entry);
    }
    size_ += size;
  }

  void End() {
    if (!sent_ || message_->guest_info().vm_map_entry_size() != 0) send_(*message_);
  }

 private:
  // Beside its bytes an element has a tag and a length.
  static constexpr size_t kFrame = 8;
  static constexpr size_t kHeader = 64;

  static size_t SizeOf(const google::protobuf::MessageLite& part) { return part.ByteSizeLong() + kFrame; }

  void Begin() {
    message_->Clear();
    message_->mutable_guest_info();
    if (site_ != SiteId::Halves()) {
      message_->mutable_site_id()->set_first(site_.first);
      message_->mutable_site_id()->set_second(site_.second);
    }
    size_ = kHeader;
  }

  void Next() {
    End();
    sent_ = true;
    Begin();
  }

  pace::VmMapEntryMsg* NewEntry(const boost::uuids::uuid& vc_uuid) {
    pace::VmMapEntryMsg* const entry = message_->mutable_guest_info()->add_vm_map_entry();
    zem::SetUuid(vc_uuid, entry->mutable_vm_vc_uuid());
    entry->mutable_vm_info();
    return entry;
  }

  // Element by element; one that is larger than a message goes alone, for the library to refuse it.
  void AddInParts(const boost::uuids::uuid& vc_uuid, const VmInfo& guest) {
    pace::VmMapEntryMsg* entry = nullptr;
    pace::VmInfoMsg element;
    ForEach(guest, [&](const auto& fill) {
      element.Clear();
      fill(&element);
      const size_t size = SizeOf(element);
      if (size_ + size + kHeader > kMostReportBytes && size_ > kHeader) {
        Next();
        entry = nullptr;
      }
      if (entry == nullptr) {
        entry = NewEntry(vc_uuid);
        size_ += kHeader;
      }
      entry->mutable_vm_info()->MergeFrom(element);
      size_ += size;
    });
  }

  const SiteId::Halves site_;
  const Send& send_;
  pace::PaceContextInfoMsg* const message_;
  size_t size_ = 0;
  bool sent_ = false;
};

}  // namespace

ReportBuilder::ReportBuilder() = default;
ReportBuilder::~ReportBuilder() = default;

void ReportBuilder::Build(const VmMap& guests, SiteId::Halves site, const Send& send) {
  try {
    if (!message_) message_ = std::make_unique<pace::PaceContextInfoMsg>();
    Report report(site, message_.get(), send);
    for (const auto& [vc_uuid, guest] : guests) {
      const auto uuid = zem::ParseUuid(vc_uuid);
      if (!uuid) {
        ZLOG_WARN("Zemi: The guest %s is left out of the report: its id is no uuid", vc_uuid.c_str());
        continue;
      }
      report.Add(*uuid, guest);
    }
    report.End();
  } catch (const std::bad_alloc&) {
    throw CtxtMemoryAllocationError("PaceContextInfoMsg", sizeof(pace::PaceContextInfoMsg));
  }
}

}  // namespace Ctxt::PaceClient
