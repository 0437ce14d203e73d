#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "app/zema/endpoint/vtep_reply.h"
#include "app/zema/migration/knl_validation.h"
#include "app/zema/migration/migration_command.h"
#include "app/zema/proxy/lum_reply.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

// The first byte is the number of requested endpoints; all parsers get the rest.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  using zem::zema::VtepReply;
  const size_t endpoints = data[0] % 16;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);

  const VtepReply reply = zem::zema::ParseVtepReply(text, endpoints);
  Require(reply.form != VtepReply::Form::kGood || reply.entries.size() == endpoints);
  Require(reply.form == VtepReply::Form::kGood || (reply.entries.empty() && reply.deletions.empty()));

  size_t skipped = 0;
  const auto mapping = zem::zema::ParseTzToDvs(text, &skipped);
  const auto list = zem::zema::ParseOkList(text, true);
  Require(mapping.has_value() == list.has_value());
  const auto short_list = zem::zema::ParseOkList(text, false);
  Require(!list || short_list->size() <= list->size());
  const auto mac = zem::zema::ParseMac(text);
  Require(!mac || *mac >> 48 == 0);
  static_cast<void>(zem::zema::ParseGuestLane(text));

  const auto knls = zem::zema::ParseKnls(text);
  for (const auto& knl : knls.value_or(std::vector<zem::zema::HostKnl>())) Require(!knl.device.empty());
  // The whole reply of the host is reported: only the prefix and the separators are left out.
  const auto failure = zem::zema::ParseMigrateToLsFailure(text);
  size_t told = failure.error.size();
  for (const auto& device : failure.vteps) told += device.size();
  Require(failure.vteps.empty() ? told <= text.size() : told + 14 <= text.size());
  return 0;
}
