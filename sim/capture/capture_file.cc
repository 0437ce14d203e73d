#include "sim/capture/capture_file.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <stdexcept>

#include "framework/process/child_process.h"
#include "sim/capture/frame.h"
#include "sim/control/hex.h"

namespace zem::sim::capture {
namespace {

constexpr size_t kMostOutput = size_t{64} << 20;

Tarvik::ChildResult RunTool(std::vector<std::string> argv) {
  Tarvik::ChildProcess::Options options;
  const std::string tool = argv[0];
  options.argv = std::move(argv);
  options.output_limit = kMostOutput;
  options.time_limit = std::chrono::minutes(1);
  Tarvik::ChildResult result = Tarvik::ChildProcess(std::move(options)).Run();
  if (result.end != Tarvik::ChildEnd::kExited)
    throw std::runtime_error(tool + " did not run: " + result.errors);
  return result;
}

std::string AfterColon(const std::string& line) {
  const size_t begin = line.find_first_not_of(' ', line.find(':') + 1);
  return begin == std::string::npos ? std::string() : line.substr(begin);
}

}  // namespace

CaptureFile ReadCaptureFile(const std::string& path) {
  CaptureFile file;
  const Tarvik::ChildResult facts = RunTool({"capinfos", "-E", "-c", "-M", path});
  file.cut_short = facts.errors.find("cut short") != std::string::npos;
  if (facts.value != 0 && !file.cut_short) throw std::runtime_error(facts.errors);
  std::istringstream lines(facts.output);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("Number of packets", 0) == 0) file.packets = std::stoull(AfterColon(line));
    if (line.rfind("File encapsulation", 0) == 0) file.encapsulation = AfterColon(line);
  }
  const Tarvik::ChildResult packets =
      RunTool({"tshark", "-n", "-r", path, "-T", "fields", "-e", "frame.cap_len", "-e", "data.data"});
  std::istringstream rows(packets.output);
  for (std::string row; std::getline(rows, row);) {
    uint64_t length = 0;
    std::from_chars(row.data(), row.data() + row.size(), length);
    file.longest = std::max(file.longest, length);
    const size_t tab = row.find('\t');
    const auto bytes = FromHex(tab == std::string::npos ? "" : row.substr(tab + 1));
    const auto number = bytes ? NumberIn(*bytes) : std::nullopt;
    file.numbers.push_back(number ? static_cast<int64_t>(*number) : -1);
  }
  return file;
}

}  // namespace zem::sim::capture
