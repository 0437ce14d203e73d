#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "app/livetrace/livetrace_app.h"
#include "app/traceflow/traceflow_app.h"
#include "framework/dataplane/lcp_adapter.h"
#include "platform/provider/provider.h"
#include "proto/lcp/lcp.pb.h"
#include "tests/support/silent_log.h"

// The input is a series of messages of the dataplane agent, each behind two bytes of length, so that sessions
// come and go.  There is no manager: nothing that is to be sent leaves the process.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::Tarvik;
  static zem::AsioZemProvider provider;
  zem::test::SilenceLog();
  const auto traceflow = std::make_shared<TraceflowApp>(provider, nullptr);
  const auto livetrace =
      LivetraceApp::Create(provider, nullptr, {.captures = "/nonexistent/", .upload_command = {}});
  while (size >= 2) {
    const size_t length = std::min<size_t>(data[0] << 8 | data[1], size - 2);
    orlane::zem::lcp::LcpDpMsg message;
    if (message.ParseFromArray(data + 2, static_cast<int>(length))) {
      if (message.has_traceflow()) traceflow->DpPacketHandler(message.traceflow());
      if (message.has_livetrace()) livetrace->DpPacketHandler(message.livetrace());
    }
    data += 2 + length;
    size -= 2 + length;
  }
  return 0;
}
