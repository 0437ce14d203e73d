#pragma once

#include <gtest/gtest.h>

#include <string>

#include "app/zema/state/realization_options.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {

/// Options that a test changes through their file.
struct TestOptions {
  /// `json` holds the options that differ from their defaults.
  void Set(const std::string& json) {
    directory.Write("zema.json", json);
    EXPECT_EQ(store.Reload(), "");
  }

  test::TempDir directory;
  OptionsStore store{directory.Path("zema.json")};
};

}  // namespace zem::zema
