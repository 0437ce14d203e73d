// Runs the store daemon as a process of its own.

#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "platform/provider/provider.h"
#include "sim/control/command_table.h"
#include "sim/control/control_server.h"
#include "sim/store/store_daemon.h"

namespace {

constexpr const char* kUsage =
    "usage: zem-sim-store [--listen ENDPOINT] [--control PATH]\n"
    "  --listen ENDPOINT  where clients connect (tcp://127.0.0.1:2480)\n"
    "  --control PATH     local socket for commands, one per line; \"help\" lists them\n";

}  // namespace

int main(int argc, char** argv) {
  std::string listen = "tcp://127.0.0.1:2480";
  std::string control;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--listen" && i + 1 < argc) {
      listen = argv[++i];
    } else if (option == "--control" && i + 1 < argc) {
      control = argv[++i];
    } else {
      std::fputs(kUsage, stderr);
      return option == "--help" ? 0 : 2;
    }
  }
  try {
    const zem::sim::ObjectRegistry registry;
    zem::AsioZemProvider provider(boost::property_tree::ptree(), "store");
    zem::sim::StoreDaemon daemon(provider, listen, registry);
    zem::sim::CommandTable commands;
    zem::sim::RegisterStoreCommands(commands, daemon, registry);
    std::unique_ptr<zem::sim::ControlServer> server;
    if (!control.empty()) server = std::make_unique<zem::sim::ControlServer>(provider, commands, control);
    std::printf("store: listening at %s, port %u\n", listen.c_str(), static_cast<unsigned>(daemon.port()));
    std::fflush(stdout);
    provider.Run(1);
    server.reset();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zem-sim-store: %s\n", error.what());
    return 1;
  }
  return 0;
}
