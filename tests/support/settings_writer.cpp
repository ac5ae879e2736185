// Writes <count> values "<prefix><i>" = "value <prefix><i>" under <key> through this process's
// settings store ($DESKLINE_SETTINGS). Exit code 0 if every write succeeded.
#include <cstdlib>
#include <string>

#include "support/settings_store.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  int failures = 0;
  for (int i = 0; i < std::atoi(argv[3]); ++i) {
    const std::string name = argv[2] + std::to_string(i);
    failures += !deskline::WriteSetting(argv[1], name.c_str(), ("value " + name).c_str());
  }
  return failures == 0 ? 0 : 1;
}
