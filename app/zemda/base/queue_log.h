#pragma once

#include <cstddef>

/// The lines that each queue writes, out of its template.
namespace ZemDa::queue_log {

void Pushing();
void Pushed(bool added, size_t size);
void Removing();
void Waiting();
void Removed(size_t size);
void Peeking();
void Peeked();
void GettingSize();
void GotSize();
void Clearing();
void Cleared();

}  // namespace ZemDa::queue_log
