#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/supportbundle/bundle_request_reader.h"
#include "app/supportbundle/upload_text.h"
#include "app/supportbundle/worker_info.h"
#include "proto/support_bundle/support_bundle.pb.h"
#include "tests/support/silent_log.h"

// A request of the manager, and what the upload script is given of it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  orlane::zem::support_bundle::BundleGenerationRequestMsg message;
  if (!message.ParseFromArray(data, static_cast<int>(size))) return 0;
  zem::Tarvik::BundleRequest request = zem::Tarvik::ReadBundleRequest(message);
  const auto text = zem::Tarvik::UploadText(request, "/tmp/bundle.tgz");
  if (text) {
    const bool one_line =
        std::ranges::none_of(*text, [](char c) { return static_cast<unsigned char>(c) < 0x20; });
    if (!one_line || !text->starts_with("{\"local_path\": ") || !text->ends_with("}}")) std::abort();
    const bool to_file_server = message.has_file_server() && message.file_server().port() != 0;
    if (to_file_server != text->ends_with(request.file_password + "\"}}}}")) {
      // A value of the manager's may end the same way; it has no such member.
      if (to_file_server) std::abort();
    }
  }
  request.WipePassword();
  if (!request.file_password.empty()) std::abort();
  return 0;
}
