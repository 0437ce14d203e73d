#pragma once

#include <exception>

#include "framework/log/log.h"

namespace IdsEvtEng {

/// Runs one round of a thread; what it throws is logged with the round's own lines, and the thread goes on.
/// `noun` is the argument of both formats, before the error; `unknown` may do without it.
template <class Round>
void Fenced(int tag, const char* with_error, const char* unknown, const char* noun, Round round) {
  constexpr zem::LogSource kLog{"tarvik", "idsevt"};
  try {
    round();
  } catch (const std::exception& error) {
    if (noun != nullptr) {
      ZLOG_CTX_ERROR(tag, with_error, noun, error.what());
    } else {
      ZLOG_CTX_ERROR(tag, with_error, error.what());
    }
  } catch (...) {
    if (noun != nullptr) {
      ZLOG_CTX_ERROR(tag, unknown, noun);
    } else {
      ZLOG_CTX_ERROR(tag, unknown, 0);
    }
  }
}

}  // namespace IdsEvtEng
