// What the linked library shows to the outside.

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>

namespace {

struct PipeClose {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

// Returns the first word of each line that `command` prints.
std::set<std::string> FirstWords(const char* command) {
  const std::unique_ptr<FILE, PipeClose> pipe(popen(command, "re"));
  std::set<std::string> words;
  char line[1024];
  while (pipe != nullptr && fgets(line, sizeof(line), pipe.get()) != nullptr) {
    const std::string text = line;
    words.insert(text.substr(0, text.find_first_of(" \n")));
  }
  return words;
}

TEST(Library, ExportsThePublicHeaderAndNothingElse) {
  EXPECT_EQ(FirstWords("nm -D --defined-only -P '" LUMSO_LIBRARY "'"),
            (std::set<std::string>{
                "lumso_bluetooth_plugin_get_type",
                "lumso_bluetooth_plugin_register_with_registrar"}));
}

// A registered GType points into the library for the life of the process.
TEST(Library, IsNeverUnloaded) {
  EXPECT_EQ(
      FirstWords("readelf -d '" LUMSO_LIBRARY "' | grep -o 'Flags:.*NODELETE'")
          .size(),
      1u);
}

}  // namespace
