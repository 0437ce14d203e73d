#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace boost::program_options {
class options_description;
class positional_options_description;
class variables_map;
}  // namespace boost::program_options

namespace zem::ctl {

class DaemonClient;
class Screen;

/// What a subcommand works with.
struct Work {
  const DaemonClient& daemon;
  Screen& screen;
  /// Print the answer for programs, on one line, instead of tables.
  bool json;
  /// The subcommand's own options and arguments.
  const boost::program_options::variables_map& options;
  /// What a subcommand that passes words on was given beside its own options, in order.
  std::vector<std::string> words = {};
};

/// A row of the program's table.
struct Subcommand {
  std::string_view name;
  /// The arguments as the help shows them, with a blank before; empty for none.
  std::string_view arguments;
  std::string_view summary;
  /// Adds the options, and names the arguments; null for a subcommand that has neither.
  void (*declare)(boost::program_options::options_description* options,
                  boost::program_options::positional_options_description* arguments);
  /// Returns the exit code; throws Failure.
  int (*run)(const Work& work);
  /// It runs another command: options that are not its own are that one's.
  bool passes_words_on = false;
};

/// All of them, in the order of the help.
std::span<const Subcommand* const> Subcommands();
const Subcommand* FindSubcommand(std::string_view name);

/// Runs the program with these words behind its name, as `main` and "watch" do; returns the exit code.
int RunWords(const std::vector<std::string>& words);

}  // namespace zem::ctl
