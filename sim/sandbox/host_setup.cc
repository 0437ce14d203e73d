#include "sim/sandbox/host_setup.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "framework/process/child_process.h"
#include "sim/data/data_folder.h"
#include "sim/sandbox/sandbox.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTools = "/usr/local/bin/";
constexpr const char* kCommandLine = "/opt/orlane/zem-cli/bin/scripts";
constexpr const char* kPerformanceFolder = "/usr/lib/orlane/high-performance-dp";
constexpr const char* kAgentTools = "/opt/orlane/zem-tarvik/libexec";
// The capture tools' own programs; the names are those of the processes.
constexpr const char* kCapturePrograms = "/usr/lib/orlane/capture";
constexpr const char* kCentralConfigTool = "zem-central-node-config-update";
// The alarm libraries' own folder, which the agent only writes to.
constexpr const char* kAlarmFolder = "/var/run/orlane/zem-monitoring";
constexpr const char* kProxyTools = "/opt/orlane/zem-cli/bin/";
constexpr const char* kControllerFile = "/etc/orlane/zem/controller-info.xml";
// The file's content after the host's installation.
constexpr const char* kNoControllers =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<config>\n  <!-- kept by the agent -->\n"
    "  <connectionList></connectionList>\n</config>\n";

void WriteTool(const std::string& name, const std::string& text) {
  const std::string path = kTools + name;
  std::ofstream out(path, std::ios::trunc);
  out << text;
  out.close();
  if (!out || ::chmod(path.c_str(), 0755) < 0) throw std::runtime_error("cannot write " + path);
}

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

void SetUpCaptureTools(const fs::path& scripts) {
  const fs::path programs(kCapturePrograms);
  fs::create_directories(programs / "python");
  fs::create_symlink("/usr/bin/python3", programs / "python/pktcap-uw");
  const fs::path built(DataFolder::Get().libraries);
  if (fs::exists(built / "pktcap-uw")) fs::create_symlink(built / "pktcap-uw", programs / "pktcap-uw");
  if (fs::exists(built / "tcpdump-uw")) fs::create_symlink(built / "tcpdump-uw", "/usr/bin/tcpdump-uw");
  fs::create_symlink(scripts / "pktcap-uw", "/usr/bin/pktcap-uw");
  for (const char* tool : {"find_portid", "knlctlProxy"}) {
    fs::create_symlink(scripts / tool, fs::path(kAgentTools) / tool);
  }
}

}  // namespace

void SetUpHost(const HostSetup& setup) {
  WriteTool("uname", "#!/bin/sh\n[ \"$*\" = \"-s -r\" ] || exec /usr/bin/uname \"$@\"\necho Hypercore " +
                         Quoted(setup.version) + "\n");
  WriteTool("orlane", "#!/bin/sh\necho " + Quoted(setup.product) + "\n");
  if (fs::exists(kAgentScripts)) {
    for (const fs::directory_entry& script : fs::directory_iterator(kAgentScripts)) {
      const fs::path tool = fs::path(kAgentTools) / script.path().filename();
      fs::remove(tool);
      fs::create_symlink(script.path(), tool);
    }
  }
  const fs::path scripts(kHostScripts);
  if (!fs::exists(scripts / "simstate.py")) return;
  fs::create_directories(kProxyTools);
  fs::copy_file(scripts / "zem-appctl", std::string(kProxyTools) + "zem-appctl",
                fs::copy_options::overwrite_existing);
  fs::create_symlink(scripts / "zemLum.py", scripts.parent_path() / "zemLum.py");
  std::ofstream(kControllerFile) << kNoControllers;
  for (const char* const ps : {"/usr/local/bin/ps", "/usr/bin/ps"}) {
    fs::copy_file(scripts / "ps", ps, fs::copy_options::overwrite_existing);
  }
  SetUpCaptureTools(scripts);
  // "/bin" and "/sbin" are links into "/usr".
  for (const char* tool : {"/usr/bin/qubcfg-knlnic", "/usr/sbin/localcli", "/usr/bin/qubcfg-nics"}) {
    fs::create_symlink(scripts / "hosttool", tool);
  }
  for (const char* tool : {"hvprobe", "memstats", "du"}) {
    fs::copy_file(scripts / "detection-tool", std::string(kTools) + tool,
                  fs::copy_options::overwrite_existing);
  }
  fs::create_directories(kCommandLine);
  fs::copy_file(scripts / "zemcli", fs::path(kCommandLine) / "zemcli", fs::copy_options::overwrite_existing);
  fs::copy_file(scripts / kCentralConfigTool, fs::path(kAgentTools) / kCentralConfigTool,
                fs::copy_options::overwrite_existing);
  // The agent's own scripts for bundles run behind one that keeps a journal and can fail.
  for (const char* script : {"sbundle-collect.py", "sbundle-upload.py"}) {
    fs::remove(fs::path(kAgentTools) / script);
    fs::copy_file(scripts / "bundle-script", fs::path(kAgentTools) / script);
  }
  fs::create_directories(kAlarmFolder);
  fs::create_directories(kPerformanceFolder);
  for (const char* file : {"hp_dp_script.py", "simstate.py"}) {
    fs::create_symlink(scripts / file, fs::path(kPerformanceFolder) / file);
  }
  Tarvik::ChildProcess::Options options;
  options.argv = {"/usr/bin/python3", scripts / "simstate.py", "init", "--pnics", setup.pnics, "--ifs",
                  setup.interfaces};
  const Tarvik::ChildResult made = Tarvik::ChildProcess(std::move(options)).Run();
  if (made.end != Tarvik::ChildEnd::kExited || made.value != 0) {
    throw std::runtime_error("the host's state was not made: " + made.errors);
  }
}

}  // namespace zem::sim
