// Every C++ example that the README or a public header shows must be code
// that CI compiles: its lines, in order, in one of the example programs.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const fs::path source = VANTOR_SOURCE_DIR;

std::string trimmed(const std::string& line) {
  const auto first = line.find_first_not_of(" \t");
  if (first == std::string::npos) {
    return {};
  }
  return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

// The file's lines without indentation, blank lines left out: examples are
// compared by content, whatever function or comment they sit in.
Lines codeLines(const fs::path& path) {
  std::ifstream in(path);
  Lines lines;
  for (std::string line; std::getline(in, line);) {
    if (auto text = trimmed(line); !text.empty()) {
      lines.push_back(std::move(text));
    }
  }
  return lines;
}

struct Example {
  std::string where;
  Lines lines;
};

// The runs of consecutive lines of `path` that `codeOf` takes for code (it
// gives their text, blank lines as ""), each an example.
template <class CodeOf>
void collect(const fs::path& path, CodeOf codeOf, std::vector<Example>& into) {
  std::ifstream in(path);
  bool inRun = false;
  int lineNumber = 0;
  for (std::string line; std::getline(in, line);) {
    ++lineNumber;
    const auto code = codeOf(line);
    if (code && !inRun) {
      into.push_back({fs::relative(path, source).string() + ":" + std::to_string(lineNumber), {}});
    }
    if (code && !code->empty()) {
      into.back().lines.push_back(*code);
    }
    inRun = code.has_value();
  }
}

// The README's ```cpp blocks.
std::vector<Example> readmeExamples() {
  std::vector<Example> examples;
  bool inside = false;
  collect(source / "README.md", [&](const std::string& line) -> std::optional<std::string> {
    if (line.rfind("```", 0) == 0) {
      inside = !inside && line.rfind("```cpp", 0) == 0;
      return std::nullopt;
    }
    return inside ? std::optional(trimmed(line)) : std::nullopt;
  }, examples);
  return examples;
}

// Runs of "//   code" lines in the public headers (two slashes, three
// spaces: prose in headers uses "///").
std::vector<Example> headerExamples() {
  std::vector<Example> examples;
  for (const char* part : {"platform", "realtime", "account", "util", "qt", "glib"}) {
    for (const auto& entry : fs::recursive_directory_iterator(source / part / "include")) {
      if (entry.path().extension() == ".hpp") {
        collect(entry.path(), [](const std::string& line) -> std::optional<std::string> {
          if (line.rfind("//   ", 0) == 0 && line.size() > 5 && line[5] != ' ') {
            return trimmed(line.substr(2));
          }
          return std::nullopt;
        }, examples);
      }
    }
  }
  return examples;
}

std::vector<std::pair<std::string, Lines>> programs() {
  std::vector<std::pair<std::string, Lines>> files;
  for (const auto* path : {"examples/quickstart.cpp", "examples/snippets.cpp", "examples/qt.cpp", "examples/glib.cpp",
                           "examples/desktop_signin.cpp",
                           "demo/coroutine/main.cpp"}) {
    files.emplace_back(path, codeLines(source / path));
  }
  return files;
}

bool compiledSomewhere(const Example& example, const std::vector<std::pair<std::string, Lines>>& files) {
  return std::any_of(files.begin(), files.end(), [&](const auto& file) {
    const auto& lines = file.second;
    return std::search(lines.begin(), lines.end(), example.lines.begin(), example.lines.end()) != lines.end();
  });
}

TEST(DocExamples, EveryOneShownIsCompiledAsItStands) {
  const auto files = programs();
  for (const auto& file : files) {
    ASSERT_FALSE(file.second.empty()) << file.first << " is missing";
  }
  const auto readme = readmeExamples();
  const auto headers = headerExamples();
  EXPECT_GE(readme.size(), 5U) << "the README's examples were not found";
  EXPECT_GE(headers.size(), 1U) << "the headers' examples were not found";
  for (const auto* examples : {&readme, &headers}) {
    for (const auto& example : *examples) {
      EXPECT_TRUE(compiledSomewhere(example, files))
          << example.where << ": not found as it stands in examples/ or demo/coroutine/main.cpp";
    }
  }
}

}  // namespace
