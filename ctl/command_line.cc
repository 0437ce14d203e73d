// Words are read twice: first the options of the program, which may stand anywhere, then what is left by the
// table row of the subcommand.

#include <algorithm>
#include <boost/program_options.hpp>
#include <cstdio>
#include <iostream>

#include "ctl/daemon_client.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"
#include "platform/core/nearest_name.h"

namespace zem::ctl {
namespace {

namespace po = boost::program_options;

constexpr const char* kSocketPath = "/var/run/orlane/zem-tarvik/tarvik-cli";
constexpr int kDefaultTimeoutMs = 2'000;
constexpr int kLongestTimeoutMs = 600'000;
// Of a word that is none, in a message.
constexpr size_t kMostShown = 64;
// Without abbreviations: one that works today would be ambiguous, or mean another option, tomorrow.
constexpr int kStyle = po::command_line_style::default_style & ~po::command_line_style::allow_guessing;

po::options_description ProgramOptions() {
  po::options_description options("Options");
  options.add_options()("json", "print for programs: JSON on one line")(
      "timeout", po::value<int>()->default_value(kDefaultTimeoutMs)->value_name("MS"),
      "how long the daemon may take for an answer, in milliseconds")(
      "socket", po::value<std::string>()->default_value(kSocketPath)->value_name("PATH"),
      "the daemon's command socket")("help,h", "show this, or what the command takes");
  return options;
}

void ShowHelp(const po::options_description& options) {
  std::cout << "Usage: zem-tarvikctl [OPTION...] COMMAND [ARGUMENT...]\n\nCommands:\n";
  size_t width = 0;
  for (const Subcommand* subcommand : Subcommands()) {
    width = std::max(width, subcommand->name.size() + subcommand->arguments.size());
  }
  for (const Subcommand* subcommand : Subcommands()) {
    const size_t used = subcommand->name.size() + subcommand->arguments.size();
    std::cout << "  " << subcommand->name << subcommand->arguments << std::string(width - used + 2, ' ')
              << subcommand->summary << '\n';
  }
  std::cout << '\n'
            << options << "\nExit codes: 0 healthy, 1 degraded or refused, 2 usage, 3 no daemon answers.\n";
}

void ShowHelp(const Subcommand& subcommand, const po::options_description& own) {
  std::cout << "Usage: zem-tarvikctl " << subcommand.name << subcommand.arguments << "\n\n"
            << subcommand.summary << '\n';
  for (const auto& option : own.options()) {
    std::cout << "  " << option->format_name() << ' ' << option->format_parameter() << "  "
              << option->description() << '\n';
  }
}

const Subcommand& Chosen(const std::string& name) {
  if (const Subcommand* const subcommand = FindSubcommand(name)) return *subcommand;
  std::vector<std::string_view> names;
  for (const Subcommand* subcommand : Subcommands()) names.push_back(subcommand->name);
  const std::string_view nearest = NearestName(name, names);
  const char* const what = name.starts_with('-') ? "option" : "command";
  throw Failure(
      kUsage,
      "there is no " + std::string(what) + " \"" + Printable(name.substr(0, kMostShown)) + "\"" +
          (nearest.empty() ? "; --help shows all" : "; did you mean \"" + std::string(nearest) + "\"?"));
}

int Run(const std::vector<std::string>& words) {
  const po::options_description program = ProgramOptions();
  // Takes the place of all positional arguments, so that what is left keeps its order.
  po::positional_options_description rest;
  rest.add("words", -1);
  po::options_description all;
  all.add(program).add_options()("words", po::value<std::vector<std::string>>());
  const po::parsed_options parsed =
      po::command_line_parser(words).options(all).positional(rest).style(kStyle).allow_unregistered().run();
  po::variables_map options;
  po::store(parsed, options);
  po::notify(options);

  std::vector<std::string> left = po::collect_unrecognized(parsed.options, po::include_positional);
  if (left.empty()) {
    if (options.count("help") == 0) throw Failure(kUsage, "a command is missing; --help shows all");
    ShowHelp(program);
    return kHealthy;
  }
  const Subcommand& subcommand = Chosen(left.front());
  left.erase(left.begin());
  po::options_description own;
  po::positional_options_description arguments;
  if (subcommand.declare != nullptr) subcommand.declare(&own, &arguments);
  if (options.count("help") != 0) {
    ShowHelp(subcommand, own);
    return kHealthy;
  }
  const int timeout_ms = options["timeout"].as<int>();
  if (timeout_ms < 1 || timeout_ms > kLongestTimeoutMs) {
    throw Failure(kUsage, "--timeout takes 1 to " + std::to_string(kLongestTimeoutMs) + " milliseconds");
  }
  po::command_line_parser parser(left);
  parser.options(own).positional(arguments).style(kStyle);
  if (subcommand.passes_words_on) parser.allow_unregistered();
  const po::parsed_options own_parsed = parser.run();
  po::variables_map own_options;
  po::store(own_parsed, own_options);
  po::notify(own_options);

  const DaemonClient daemon(options["socket"].as<std::string>(), std::chrono::milliseconds(timeout_ms));
  Screen screen(Screen::WantsColours());
  return subcommand.run({daemon, screen, options.count("json") != 0, own_options,
                         po::collect_unrecognized(own_parsed.options, po::include_positional)});
}

}  // namespace

int RunWords(const std::vector<std::string>& words) {
  int code = kHealthy;
  std::string error;
  try {
    code = Run(words);
  } catch (const Failure& failure) {
    code = failure.code();
    error = failure.what();
  } catch (const po::error& wrong) {
    code = kUsage;
    error = wrong.what();
  } catch (const std::exception& failure) {
    code = kDegraded;
    error = failure.what();
  }
  // What was printed may have met a full disk or a reader that left; the code must not say that all was told.
  std::cout.flush();
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    if (error.empty()) error = "the output could not be written";
    if (code == kHealthy) code = kDegraded;
  }
  if (!error.empty()) std::fprintf(stderr, "zem-tarvikctl: %s\n", Printable(error).c_str());
  return code;
}

}  // namespace zem::ctl
