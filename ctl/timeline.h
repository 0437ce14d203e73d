#pragma once

#include <string>

#include "ctl/json.h"

namespace zem::ctl {

class Screen;

/// "1.25 ms", "48 us", "3.2 s"; "under way" for a time that is not over.
std::string TookText(double micros);

/// Prints an operation of "get/why" for people: its outcome, and a line for each step.
void ShowTimeline(Screen& screen, const Json& operation);

/// The list of operations without their steps.
void ShowOperations(Screen& screen, const Json& operations);

/// The operations in the trace event form that trace viewers open: a process for each operation, a row for
/// each thread.
std::string TraceEvents(const Json& operations);

}  // namespace zem::ctl
