#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "app/zema/resync/resync_reply.h"

// What the script prints: every field of a command is a piece of it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using zem::zema::ResyncReply;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const ResyncReply reply(text);
  if ((reply.kind() == ResyncReply::Kind::kCommands) == reply.commands().empty()) std::abort();
  for (const std::string_view command : reply.commands()) {
    const auto parsed = ResyncReply::Parse(command);
    if (!parsed) continue;
    if (parsed->text != command) std::abort();
    for (const std::string* field : {&parsed->vif_id, &parsed->ls_id, &parsed->gcf_path, &parsed->port_id}) {
      if (field->find_first_of("|,") != std::string::npos || text.find(*field) == text.npos) std::abort();
    }
  }
  return 0;
}
