#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace IdsEvtEng {

/// The members of a line that the engine reads.
enum class Member : uint8_t {
  kEventType,
  kSrcIp,
  kDestIp,
  kSrcPort,
  kDestPort,
  kProto,
  kAppProto,
  kFlowId,
  kTimestamp,
  kDirection,
  kSnipTsUs,
  kTenancy,
  kSignatureId,
  kSignature,
  kSeverity,
  kAction,
  kTargetIp,
  kTargetPort,
  kFlipEndpoints,
  kDetectorId,
  kIdsMode,
  kSessionDir,
  kEventDir,
  kFlowSrcIp,
  kFlowDestIp,
  kFlowDir,
  kUserId,
  kRuleId,
  kProfileId,
  kVnicId,
  kVmUuid,
  kLspUuid,
  kBytesToServer,
  kBytesToClient,
  kFlowSnipTsUs,
  kHttpHostname,
  kHttpPort,
  kHttpUrl,
  kMembers
};

/// The member's path, for log lines: "alert.signature_id".
const char* PathOf(Member member);

/// One line of JSON, of which only the known members are kept.  They point into the line, which must outlive
/// the object; nothing is allocated, and a number keeps all its digits.
///
/// A member whose value is an array counts with the array's first element.  Of two members of one name the
/// first counts.  Limits: 64 levels of nesting.
class JsonLine {
 public:
  /// False when the line is not one JSON object or value; `error` says why.
  [[nodiscard]] bool Parse(std::string_view line);
  std::string error() const;

  bool Has(Member member) const { return !At(member).empty(); }
  /// The value as it stands in the line, a text with its quotes; empty when the member is missing.
  std::string_view At(Member member) const { return tokens_[static_cast<size_t>(member)]; }

  /// A text without its escapes, a number or a word as it stands.  Nothing for a missing member, an object or
  /// null.
  std::optional<std::string> Text(Member member) const;
  /// Whether the member's text, which has no escapes, is `text`.
  bool Is(Member member, std::string_view text) const;
  /// A whole number in the type's range, quoted or not.
  template <class Number>
  std::optional<Number> As(Member member) const;

 private:
  friend class JsonScanner;

  std::array<std::string_view, static_cast<size_t>(Member::kMembers)> tokens_;
  const char* error_ = "";
  size_t error_at_ = 0;
};

extern template std::optional<uint32_t> JsonLine::As(Member) const;
extern template std::optional<int32_t> JsonLine::As(Member) const;
extern template std::optional<uint64_t> JsonLine::As(Member) const;

}  // namespace IdsEvtEng
