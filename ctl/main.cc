#include <string>
#include <vector>

#include "ctl/subcommand.h"

int main(int argc, char** argv) {
  return zem::ctl::RunWords(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
}
