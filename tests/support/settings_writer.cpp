// Writes <count> values "<prefix><i>" = "value <prefix><i>" under the key given, through the
// settings store of this process, at the file $DESKLINE_SETTINGS. Exit code 0 if every write
// reported success.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/settings_store.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: settings_writer <key> <prefix> <count>\n");
    return 2;
  }
  const char* key = argv[1];
  const std::string prefix = argv[2];
  const int count = std::atoi(argv[3]);
  int failures = 0;
  for (int i = 0; i < count; ++i) {
    const std::string name = prefix + std::to_string(i);
    const std::string value = "value " + name;
    if (!deskline::WriteSetting(key, name.c_str(), value.c_str())) {
      std::fprintf(stderr, "settings_writer: write of %s failed\n", name.c_str());
      ++failures;
    }
  }
  return failures == 0 ? 0 : 1;
}
