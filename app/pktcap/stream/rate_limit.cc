#include "app/pktcap/stream/rate_limit.h"

#include <algorithm>

namespace zem::Tarvik {
namespace {

constexpr double kBurstsInSecond = 1000;
constexpr int64_t kLeastNs = 1;
constexpr double kNsInSecond = 1e9;

}  // namespace

RateLimit::Bucket::Bucket(uint64_t per_second)
    : limited(per_second != 0 && per_second != kUnlimited),
      rate(static_cast<double>(per_second)),
      limit(rate / kBurstsInSecond) {}

RateLimit::RateLimit(uint64_t packets_per_second, uint64_t bytes_per_second)
    : packets_(packets_per_second), bytes_(bytes_per_second) {}

bool RateLimit::Pass(int64_t time_ns, size_t bytes) {
  if (!packets_.limited && !bytes_.limited) return true;
  // Packets of several sources come with stamps that may go back a little.
  const int64_t passed = has_last_ ? std::max(kLeastNs, time_ns - last_ns_) : kLeastNs;
  const double seconds = static_cast<double>(passed) / kNsInSecond;
  const double packet_level = packets_.LevelAfter(seconds);
  const double byte_level = bytes_.LevelAfter(seconds);
  if (packets_.limited && packet_level > packets_.limit) return false;
  if (bytes_.limited && byte_level > bytes_.limit) return false;
  has_last_ = true;
  last_ns_ = time_ns;
  packets_.level = std::max(0.0, packet_level) + 1;
  bytes_.level = std::max(0.0, byte_level) + static_cast<double>(bytes);
  return true;
}

}  // namespace zem::Tarvik
