#pragma once

#include <string.h>

#include <string>

namespace zem {

/// Overwrites a secret, also what a longer one before it has left behind it, and empties the text.
inline void WipeText(std::string* text) {
  text->resize(text->capacity());
  ::explicit_bzero(text->data(), text->size());
  text->clear();
}

}  // namespace zem
