// One pass over the line: each object that is on the way to a known member has a number, and a member's name
// is looked up among the rows of its object alone.

#include "app/ctxteng/idsrecord/json_line.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace IdsEvtEng {
namespace {

constexpr int kDeepest = 64;

enum Object : uint8_t { kTop, kAlert, kTarget, kMetadata, kZemMetadata, kFlow, kFlowSnip, kHttp, kObjects };
constexpr Object kOther = kObjects;
constexpr Member kNone = Member::kMembers;

// A member is a value that is read, an object that leads to one, or both.
struct Row {
  Object object;
  std::string_view name;
  Member member;
  Object inner;
  const char* path;
};
constexpr std::array kRows = {
    Row{kTop, "event_type", Member::kEventType, kOther, "event_type"},
    Row{kTop, "src_ip", Member::kSrcIp, kOther, "src_ip"},
    Row{kTop, "dest_ip", Member::kDestIp, kOther, "dest_ip"},
    Row{kTop, "src_port", Member::kSrcPort, kOther, "src_port"},
    Row{kTop, "dest_port", Member::kDestPort, kOther, "dest_port"},
    Row{kTop, "proto", Member::kProto, kOther, "proto"},
    Row{kTop, "app_proto", Member::kAppProto, kOther, "app_proto"},
    Row{kTop, "flow_id", Member::kFlowId, kOther, "flow_id"},
    Row{kTop, "timestamp", Member::kTimestamp, kOther, "timestamp"},
    Row{kTop, "direction", Member::kDirection, kOther, "direction"},
    Row{kTop, "snip_ts_us", Member::kSnipTsUs, kOther, "snip_ts_us"},
    Row{kTop, "zem_tenancy", Member::kTenancy, kOther, "zem_tenancy"},
    Row{kTop, "alert", kNone, kAlert, nullptr},
    Row{kTop, "zem_metadata", kNone, kZemMetadata, nullptr},
    Row{kTop, "flow", kNone, kFlow, nullptr},
    Row{kTop, "flow-snip", kNone, kFlowSnip, nullptr},
    Row{kTop, "http", kNone, kHttp, nullptr},
    Row{kAlert, "signature_id", Member::kSignatureId, kOther, "alert.signature_id"},
    Row{kAlert, "signature", Member::kSignature, kOther, "alert.signature"},
    Row{kAlert, "severity", Member::kSeverity, kOther, "alert.severity"},
    Row{kAlert, "action", Member::kAction, kOther, "alert.action"},
    Row{kAlert, "target", kNone, kTarget, nullptr},
    Row{kAlert, "metadata", kNone, kMetadata, nullptr},
    Row{kTarget, "ip", Member::kTargetIp, kOther, "alert.target.ip"},
    Row{kTarget, "port", Member::kTargetPort, kOther, "alert.target.port"},
    Row{kMetadata, "flip_endpoints", Member::kFlipEndpoints, kOther, "alert.metadata.flip_endpoints"},
    Row{kMetadata, "detector_id", Member::kDetectorId, kOther, "alert.metadata.detector_id"},
    Row{kMetadata, "ids_mode", Member::kIdsMode, kOther, "alert.metadata.ids_mode"},
    Row{kZemMetadata, "session_dir", Member::kSessionDir, kOther, "zem_metadata.session_dir"},
    Row{kZemMetadata, "event_dir", Member::kEventDir, kOther, "zem_metadata.event_dir"},
    Row{kZemMetadata, "flow_src_ip", Member::kFlowSrcIp, kOther, "zem_metadata.flow_src_ip"},
    Row{kZemMetadata, "flow_dest_ip", Member::kFlowDestIp, kOther, "zem_metadata.flow_dest_ip"},
    Row{kZemMetadata, "flow_dir", Member::kFlowDir, kOther, "zem_metadata.flow_dir"},
    Row{kZemMetadata, "user_id", Member::kUserId, kOther, "zem_metadata.user_id"},
    Row{kZemMetadata, "rule_id", Member::kRuleId, kOther, "zem_metadata.rule_id"},
    Row{kZemMetadata, "profile_id", Member::kProfileId, kOther, "zem_metadata.profile_id"},
    Row{kZemMetadata, "vnic_id", Member::kVnicId, kOther, "zem_metadata.vnic_id"},
    Row{kZemMetadata, "vm_uuid", Member::kVmUuid, kOther, "zem_metadata.vm_uuid"},
    Row{kZemMetadata, "lsp_uuid", Member::kLspUuid, kOther, "zem_metadata.lsp_uuid"},
    Row{kFlow, "bytes_toserver", Member::kBytesToServer, kOther, "flow.bytes_toserver"},
    Row{kFlow, "bytes_toclient", Member::kBytesToClient, kOther, "flow.bytes_toclient"},
    Row{kFlowSnip, "snip_ts_us", Member::kFlowSnipTsUs, kOther, "flow-snip.snip_ts_us"},
    Row{kHttp, "hostname", Member::kHttpHostname, kOther, "http.hostname"},
    Row{kHttp, "http_port", Member::kHttpPort, kOther, "http.http_port"},
    Row{kHttp, "url", Member::kHttpUrl, kOther, "http.url"},
};

// The rows of each object, which stand together: [first, last).
struct Range {
  size_t first = 0;
  size_t last = 0;
};
constexpr auto kRanges = [] {
  std::array<Range, kObjects> ranges;
  for (size_t i = 0; i < kRows.size(); ++i) {
    Range& range = ranges[kRows[i].object];
    if (range.last == 0) range.first = i;
    range.last = i + 1;
  }
  return ranges;
}();

constexpr Row kUnknown{kOther, "", kNone, kOther, nullptr};

const Row& Find(Object object, std::string_view name) {
  if (object == kOther) return kUnknown;
  const Range range = kRanges[object];
  for (size_t i = range.first; i < range.last; ++i) {
    if (kRows[i].name == name) return kRows[i];
  }
  return kUnknown;
}

void AppendUtf8(uint32_t code, std::string* text) {
  if (code < 0x80) {
    *text += static_cast<char>(code);
    return;
  }
  int more = 1;
  if (code >= 0x10000) {
    more = 3;
    *text += static_cast<char>(0xF0 | (code >> 18));
  } else if (code >= 0x800) {
    more = 2;
    *text += static_cast<char>(0xE0 | (code >> 12));
  } else {
    *text += static_cast<char>(0xC0 | (code >> 6));
  }
  while (more-- > 0) *text += static_cast<char>(0x80 | ((code >> (6 * more)) & 0x3F));
}

// The four digits behind "\u", which the scanner has seen.
uint32_t HexAt(std::string_view body, size_t at) {
  uint32_t code = 0;
  std::from_chars(body.data() + at, body.data() + at + 4, code, 16);
  return code;
}

constexpr uint32_t kReplacement = 0xFFFD;

// Reads the code at `body[*at]`, which is behind "\u", with the second half of a pair.
uint32_t CodeAt(std::string_view body, size_t* at) {
  const uint32_t code = HexAt(body, *at);
  *at += 4;
  if (code < 0xD800 || code > 0xDFFF) return code;
  if (code > 0xDBFF || *at + 6 > body.size() || body[*at] != '\\' || body[*at + 1] != 'u')
    return kReplacement;
  const uint32_t low = HexAt(body, *at + 2);
  if (low < 0xDC00 || low > 0xDFFF) return kReplacement;
  *at += 6;
  return 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
}

// `body` is a text between its quotes, with escapes that the scanner has found well-formed.
std::string Unescape(std::string_view body) {
  constexpr std::string_view kLetters = "bfnrt";
  constexpr std::string_view kMeanings = "\b\f\n\r\t";
  std::string text;
  text.reserve(body.size());
  size_t at = 0;
  while (at < body.size()) {
    const size_t plain = std::min(body.find('\\', at), body.size());
    text.append(body, at, plain - at);
    if (plain + 1 >= body.size()) break;
    const char escaped = body[plain + 1];
    at = plain + 2;
    if (escaped == 'u') {
      AppendUtf8(CodeAt(body, &at), &text);
    } else {
      const size_t letter = kLetters.find(escaped);
      text += letter == std::string_view::npos ? escaped : kMeanings[letter];
    }
  }
  return text;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The first character that ends the plain part of a text: a quote, an escape or a control character.  Eight
// at a time, since most of a line is texts.
const char* PlainEnd(const char* at, const char* end) {
  constexpr uint64_t kOnes = 0x0101010101010101;
  constexpr uint64_t kHighs = 0x8080808080808080;
  const auto has_zero = [](uint64_t word) { return (word - kOnes) & ~word & kHighs; };
  while (end - at >= 8) {
    uint64_t word = 0;
    std::memcpy(&word, at, sizeof(word));
    const uint64_t control = (word - kOnes * 0x20) & ~word & kHighs;
    if ((has_zero(word ^ (kOnes * '"')) | has_zero(word ^ (kOnes * '\\')) | control) != 0) break;
    at += 8;
  }
  while (at < end && *at != '"' && *at != '\\' && static_cast<unsigned char>(*at) >= 0x20) ++at;
  return at;
}

}  // namespace

class JsonScanner {
 public:
  JsonScanner(std::string_view text, JsonLine* line)
      : begin_(text.data()), at_(text.data()), end_(text.data() + text.size()), line_(*line) {}

  bool Whole() {
    if (!Value(kNone, kTop, 0)) return false;
    SkipBlanks();
    return at_ == end_ || Fail("text behind the value");
  }

 private:
  bool Fail(const char* error) {
    line_.error_ = error;
    line_.error_at_ = static_cast<size_t>(at_ - begin_);
    return false;
  }

  void SkipBlanks() {
    while (at_ < end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\t' || *at_ == '\r')) ++at_;
  }

  bool Take(char c) {
    SkipBlanks();
    if (at_ == end_ || *at_ != c) return false;
    ++at_;
    return true;
  }

  // `inner` is what an object here is; `member` is where its value belongs.
  bool Value(Member member, Object inner, int depth) {
    SkipBlanks();
    if (at_ == end_) return Fail("the value is missing");
    const char* const start = at_;
    switch (*at_) {
      case '{':
        return depth < kDeepest ? Members(inner, depth + 1) && Keep(member, start) : Fail("too deep");
      case '[':
        if (depth == kDeepest) return Fail("too deep");
        // The tenancy is replaced as a whole; the others are read.
        if (member == Member::kTenancy) return Elements(kNone, depth + 1) && Keep(member, start);
        return Elements(member, depth + 1);
      case '"':
        return Text() && Keep(member, start);
      case 't':
        return Word("true") && Keep(member, start);
      case 'f':
        return Word("false") && Keep(member, start);
      case 'n':
        return Word("null") && Keep(member, start);
      default:
        return Number() && Keep(member, start);
    }
  }

  bool Keep(Member member, const char* start) {
    if (member == kNone) return true;
    std::string_view& token = line_.tokens_[static_cast<size_t>(member)];
    if (token.empty()) token = std::string_view(start, static_cast<size_t>(at_ - start));
    return true;
  }

  bool Members(Object object, int depth) {
    ++at_;
    if (Take('}')) return true;
    do {
      SkipBlanks();
      if (at_ == end_ || *at_ != '"') return Fail("a member's name is missing");
      const char* const name_at = at_ + 1;
      if (!Text()) return false;
      const std::string_view name(name_at, static_cast<size_t>(at_ - 1 - name_at));
      const Row& row =
          text_has_escapes_ && object != kOther ? Find(object, Unescape(name)) : Find(object, name);
      if (!Take(':')) return Fail("':' is missing");
      if (!Value(row.member, row.inner, depth)) return false;
    } while (Take(','));
    return Take('}') || Fail("',' or '}' is missing");
  }

  bool Elements(Member member, int depth) {
    ++at_;
    if (Take(']')) return true;
    do {
      if (!Value(member, kOther, depth)) return false;
      member = kNone;
    } while (Take(','));
    return Take(']') || Fail("',' or ']' is missing");
  }

  bool Text() {
    ++at_;
    text_has_escapes_ = false;
    for (;;) {
      at_ = PlainEnd(at_, end_);
      if (at_ == end_) return Fail("the text does not end");
      if (*at_ == '"') {
        ++at_;
        return true;
      }
      if (*at_ != '\\') return Fail("a control character in a text");
      text_has_escapes_ = true;
      if (!Escape()) return Fail("a wrong escape");
    }
  }

  bool Escape() {
    if (++at_ == end_) return false;
    const char escaped = *at_++;
    if (escaped != 'u') return std::string_view("\"\\/bfnrt").find(escaped) != std::string_view::npos;
    for (int digit = 0; digit < 4; ++digit, ++at_) {
      if (at_ == end_) return false;
      if (!IsDigit(*at_) && !(*at_ >= 'a' && *at_ <= 'f') && !(*at_ >= 'A' && *at_ <= 'F')) return false;
    }
    return true;
  }

  bool Word(std::string_view word) {
    if (!std::string_view(at_, static_cast<size_t>(end_ - at_)).starts_with(word))
      return Fail("no such word");
    at_ += word.size();
    return true;
  }

  bool Digits() {
    const char* const start = at_;
    while (at_ < end_ && IsDigit(*at_)) ++at_;
    return at_ > start;
  }

  bool Number() {
    if (*at_ == '-') ++at_;
    const char* const whole = at_;
    if (!Digits() || (*whole == '0' && at_ - whole > 1)) return Fail("no value");
    if (at_ < end_ && *at_ == '.') {
      ++at_;
      if (!Digits()) return Fail("a number ends with its point");
    }
    if (at_ < end_ && (*at_ == 'e' || *at_ == 'E')) {
      ++at_;
      if (at_ < end_ && (*at_ == '+' || *at_ == '-')) ++at_;
      if (!Digits()) return Fail("a number ends with its exponent");
    }
    return true;
  }

  const char* const begin_;
  const char* at_;
  const char* const end_;
  JsonLine& line_;
  bool text_has_escapes_ = false;  // of the text read last
};

const char* PathOf(Member member) {
  for (const Row& row : kRows) {
    if (row.member == member) return row.path;
  }
  return "";
}

bool JsonLine::Parse(std::string_view line) {
  tokens_ = {};
  error_ = "";
  error_at_ = 0;
  return JsonScanner(line, this).Whole();
}

std::string JsonLine::error() const { return std::string(error_) + " at byte " + std::to_string(error_at_); }

std::optional<std::string> JsonLine::Text(Member member) const {
  const std::string_view token = At(member);
  if (token.empty() || token[0] == '{' || token == "null") return std::nullopt;
  if (token[0] != '"') return std::string(token);
  const std::string_view body = token.substr(1, token.size() - 2);
  return body.find('\\') == std::string_view::npos ? std::string(body) : Unescape(body);
}

bool JsonLine::Is(Member member, std::string_view text) const {
  const std::string_view token = At(member);
  if (!token.empty() && token[0] == '"') return token.substr(1, token.size() - 2) == text;
  return token == text;
}

template <class Number>
std::optional<Number> JsonLine::As(Member member) const {
  std::string_view digits = At(member);
  if (digits.size() >= 2 && digits[0] == '"') digits = digits.substr(1, digits.size() - 2);
  Number number = 0;
  const char* const end = digits.data() + digits.size();
  const auto read = std::from_chars(digits.data(), end, number);
  if (digits.empty() || read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return number;
}

template std::optional<uint32_t> JsonLine::As(Member) const;
template std::optional<int32_t> JsonLine::As(Member) const;
template std::optional<uint64_t> JsonLine::As(Member) const;

}  // namespace IdsEvtEng
