#include "app/supportbundle/bundle_request_reader.h"

#include "app/supportbundle/worker_info.h"
#include "framework/log/log.h"
#include "proto/support_bundle/support_bundle.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "supportbundle"};

constexpr uint32_t kContentAll = 1;
constexpr uint32_t kContentAudit = 3;
constexpr uint32_t kProtocolScp = 2;

const char* ContentWord(uint32_t selector) {
  switch (selector) {
    case kContentAll:
      return "ALL";
    case kContentAudit:
      return "EAL4_AUDIT";
    default:
      return "DEFAULT";
  }
}

std::string Joined(const google::protobuf::RepeatedPtrField<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) {
    if (&text != &texts[0]) joined += ' ';
    joined += text;
  }
  return joined;
}

}  // namespace

BundleRequest ReadBundleRequest(const orlane::zem::support_bundle::BundleGenerationRequestMsg& message) {
  BundleRequest request;
  request.first_text = message.first_text();
  request.generate_id = message.generate_id();
  request.third_text = message.third_text();
  request.content = ContentWord(message.content_selector());
  request.number = message.number();
  request.flag = message.flag();

  const auto& manager = message.manager_info();
  request.manager_server = manager.server();
  request.manager_port = manager.port();
  request.thumbprint = manager.thumbprint();
  request.fqdn_required = manager.fqdn_required();
  request.fqdn = Joined(manager.fqdn());
  request.ipv4_address = Joined(manager.ipv4_address());
  request.ipv6_address = Joined(manager.ipv6_address());

  if (!message.has_file_server()) return request;
  const auto& server = message.file_server();
  const auto& transfer = server.file_server_info().file_transfer_protocol();
  request.file_port = server.port();
  request.file_server = server.server();
  request.file_protocol = transfer.protocol() == kProtocolScp ? "scp" : "sftp";
  request.file_directory = server.directory();
  request.file_fingerprint = server.file_server_info().ssh_fingerprint();
  request.file_user = transfer.auth_info().username();
  request.file_password = transfer.auth_info().password();
  if (request.file_port == 0) ZLOG_WARN("the file server has no port, the bundle goes to the manager");
  return request;
}

}  // namespace zem::Tarvik
