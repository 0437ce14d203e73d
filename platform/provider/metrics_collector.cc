#include "platform/provider/metrics_collector.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "platform/core/lib_log.h"
#include "platform/core/unique_fd.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem::metrics {
namespace {

constexpr const char* kDefaultFile = "/var/run/orlane/zem-tarvik/metrics.json";
constexpr int kDefaultIntervalS = 60;

void AppendText(std::string* out, const std::string& text) {
  out->push_back('"');
  for (const char c : text) {
    if (c == '"' || c == '\\') out->push_back('\\');
    out->push_back(static_cast<unsigned char>(c) < 0x20 ? ' ' : c);
  }
  out->push_back('"');
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

class MetricsCollector::Impl {
 public:
  Impl(AsioZemProvider& provider, const boost::property_tree::ptree& options)
      : provider(provider),
        file(options.get("file", std::string(kDefaultFile))),
        interval_s(std::max(1, options.get("intervalSec", kDefaultIntervalS))) {}

  std::string Json() {
    std::string out = "{\"time\":";
    const auto now = Clock::Process().WallNow().time_since_epoch();
    out += std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now).count());
    out += ",\"metrics\":[";
    bool first = true;
    for (const Sample& sample : provider.metrics().Read()) {
      if (!first) out.push_back(',');
      first = false;
      out += "{\"name\":";
      AppendText(&out, sample.name);
      if (!sample.tag.empty()) {
        out += ",\"tag\":";
        AppendText(&out, sample.tag);
      }
      char numbers[200];
      std::snprintf(numbers, sizeof(numbers), ",\"kind\":\"%s\",\"value\":%.6g,\"count\":%llu", sample.kind,
                    sample.value, static_cast<unsigned long long>(sample.count));
      out += numbers;
      if (std::strcmp(sample.kind, "frequency") == 0) {
        uint64_t& last = last_counts[sample.name + "/" + sample.tag];
        std::snprintf(numbers, sizeof(numbers), ",\"perSecond\":%.6g",
                      double(sample.count - last) / interval_s);
        out += numbers;
        last = sample.count;
      } else if (std::strcmp(sample.kind, "latency") == 0) {
        std::snprintf(numbers, sizeof(numbers), ",\"maxUs\":%llu,\"p99Us\":%llu",
                      static_cast<unsigned long long>(sample.max),
                      static_cast<unsigned long long>(sample.p99));
        out += numbers;
      }
      out.push_back('}');
    }
    out += "]}\n";
    return out;
  }

  bool Collect() {
    const std::string temporary = file + ".tmp";
    const std::string text = Json();
    UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    const bool written = fd && WriteAll(fd.get(), text) && ::rename(temporary.c_str(), file.c_str()) == 0;
    if (!written) {
      ZEM_LIB_LOG(Library::kMetrics, kLogWarning, "cannot write %s: %s", file.c_str(), std::strerror(errno));
    }
    return written;
  }

  AsioZemProvider& provider;
  const std::string file;
  const int interval_s;
  std::shared_ptr<Timer> timer;
  std::map<std::string, uint64_t> last_counts;
};

MetricsCollector::MetricsCollector(AsioZemProvider& provider, const boost::property_tree::ptree& options)
    : impl_(std::make_shared<Impl>(provider, options)) {
  impl_->timer = provider.timers().ScheduleRepeated(
      std::chrono::seconds(impl_->interval_s),
      [weak = std::weak_ptr<Impl>(impl_)] {
        if (const auto impl = weak.lock()) impl->Collect();
      },
      TimerOptions::Default);
}

MetricsCollector::~MetricsCollector() { impl_->timer->Cancel(); }

bool MetricsCollector::Collect() { return impl_->Collect(); }

}  // namespace zem::metrics
