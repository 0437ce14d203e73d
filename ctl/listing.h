#pragma once

#include <span>
#include <string>

#include "ctl/json.h"
#include "ctl/subcommand.h"

namespace zem::ctl {

enum class Show {
  kText,
  kNumber,
  kBytes,   ///< "12.3 MiB"
  kAge,     ///< seconds
  kMicros,  ///< microseconds as "1.25 ms"
  kState,   ///< a word, coloured by whether it is good
};

/// A column of a table: the member of each object that it shows.
struct Column {
  const char* member;
  const char* heading;
  Show show = Show::kText;
};

/// The objects of `rows`, an array, as a table; `none` is the line for an empty one.
void ShowTable(Screen& screen, const Json& rows, std::span<const Column> columns, const char* none);

/// Asks the daemon for `command`, whose answer is an object with the array `member`, and prints that: the
/// whole answer for programs, the table for people, with a line when the daemon left rows out.  Returns the
/// exit code.
int ShowList(const Work& work, const char* command, const char* member, std::span<const Column> columns,
             const char* none);

/// The subcommands that show a list.
std::span<const Subcommand> ListSubcommands();

/// Prints `answer` on one line.
void PrintJson(const Json& answer);

/// A value as a column of this kind shows it.
std::string Shown(const Json& value, Show show);

}  // namespace zem::ctl
