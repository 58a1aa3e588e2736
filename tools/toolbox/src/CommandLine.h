// The command line of a tool, read with CLI11, and the first steps of its
// main(): what every tool of the project does alike, so that all refuse a bad
// option, answer --help and report an error the same way.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {  // NOLINT(readability-identifier-naming): CLI11's own
class App;
class Validator;
}  // namespace CLI

namespace veranda::reachabilityCache::tools {

struct CommandLineResult {
  bool ok = false;    // the options were read, or --help was asked for
  bool help = false;  // --help: print the usage and do nothing else
  std::string error;  // one line, safe for a terminal, when !ok
};

// A tool's options and how reading them ended.
template <typename Options>
struct ParsedOptions : CommandLineResult {
  Options options;
};

// Reads `arguments` (those after the program name) into the options that
// `app` describes. A refusal becomes one line without the program's name:
// "--seed needs a value", "unknown option '--x'", "unexpected argument 'y'",
// or CLI11's own words for the rest.
CommandLineResult parseCommandLine(CLI::App& app, const std::vector<std::string>& arguments);

// Refuses an empty text for an option that names a file.
CLI::Validator nonEmptyPath();

// `text` in single quotes, made safe for a terminal.
std::string quotedText(const std::string& text);

// The arguments after the program name.
std::vector<std::string> argumentsOf(int argc, char** argv);

// Writes "<program>: error: <error>" to standard error, made safe for a
// terminal, and returns `status`.
int failTool(const char* program, const std::string& error, int status);

// The start of a tool's main(): a refused command line is one line on
// standard error (exit status 2), --help prints `usage()` on standard output
// (0). Returns the exit status when main() is done, nothing when the tool
// runs.
std::optional<int> startTool(const char* program, const CommandLineResult& parsed,
                             const std::function<std::string()>& usage);

}  // namespace veranda::reachabilityCache::tools
