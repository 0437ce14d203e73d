#pragma once

#include <string>
#include <string_view>

namespace IdsEvtEng {

/// An alert with all members that the engine reads, in the form in which the detection process writes it.
inline const std::string kAlert =
    R"({"timestamp":"2024-01-02T03:04:05.123456+0000","flow_id":18446744073709551557,"event_type":"alert",)"
    R"("src_ip":"10.1.2.3","src_port":51234,"dest_ip":"192.168.7.9","dest_port":445,"proto":"TCP",)"
    R"("app_proto":"smb","direction":"to_server","snip_ts_us":1704164645123456,)"
    R"("alert":{"action":"allowed","signature_id":2024217,"signature":"SMB \"probe\" \u00fc","severity":1,)"
    R"("target":{"ip":"192.168.7.9","port":445},)"
    R"("metadata":{"flip_endpoints":"false","detector_id":["17","18"],"ids_mode":["detect_prevent"]}},)"
    R"("flow":{"pkts_toserver":4,"bytes_toserver":480,"bytes_toclient":1200,"start":"x"},)"
    R"("http":{"hostname":"files.example","http_port":8080,"url":"HTTP://u@files.example:8080/a?b=c"},)"
    R"("zem_metadata":{"session_dir":"destination","event_dir":"ingress","flow_src_ip":"10.1.2.3",)"
    R"("flow_dest_ip":"192.168.7.9","flow_dir":1,"user_id":77,"rule_id":3001,"profile_id":"p-1",)"
    R"("vnic_id":4000,"vm_uuid":"vm-1","lsp_uuid":"lsp-1"}})";

/// A capture's notice.
inline const std::string kNotice =
    R"({"flow_id":5,"event_type":"flow-snip","src_ip":"10.1.2.3","src_port":51234,"dest_ip":"192.168.7.9",)"
    R"("dest_port":445,"proto":"TCP","app_proto":"smb","flow":{"bytes_toserver":480,"bytes_toclient":1200},)"
    R"("flow-snip":{"snip_ts_us":9},"zem_metadata":{"flow_dir":2,"user_id":77,"rule_id":3001,)"
    R"("profile_id":"p-1","vm_uuid":"vm-1"}})";

/// `text` with the first `from` replaced.
inline std::string With(std::string text, std::string_view from, std::string_view to) {
  const size_t at = text.find(from);
  return at == std::string::npos ? "no such part" : text.replace(at, from.size(), to);
}

/// A notice of the capture of `flow`.
inline std::string NoticeOf(uint64_t flow) {
  return With(kNotice, "\"flow_id\":5", "\"flow_id\":" + std::to_string(flow));
}

}  // namespace IdsEvtEng
