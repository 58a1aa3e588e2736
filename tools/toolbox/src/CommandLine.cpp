#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include <iostream>

#include "SafeText.h"

namespace veranda::reachabilityCache::tools {
namespace {

// One line for a refusal by CLI11.
std::string errorLine(const CLI::ParseError& error) {
  std::string text = error.what();
  // "--seed: 1 required S missing" reads better as "--seed needs a value".
  const std::size_t colon = text.find(':');
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr && colon != std::string::npos &&
      text.find(" required ") != std::string::npos) {
    return text.substr(0, colon) + " needs a value";
  }
  return terminalText(text);
}

}  // namespace

CommandLineResult parseCommandLine(CLI::App& app, const std::vector<std::string>& arguments) {
  CommandLineResult result;
  app.allow_extras();
  std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());  // as CLI11 takes them
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    result.help = true;
    result.ok = true;
    return result;
  } catch (const CLI::ParseError& error) {
    result.error = errorLine(error);
    return result;
  }
  const std::vector<std::string> extras = app.remaining();
  if (!extras.empty()) {
    const std::string& first = extras.front();
    result.error =
        (first.rfind('-', 0) == 0 ? "unknown option " : "unexpected argument ") + quotedText(first);
    return result;
  }
  result.ok = true;
  return result;
}

CLI::Validator nonEmptyPath() {
  return {[](std::string& value) -> std::string {
            return value.empty() ? "needs a file path, got an empty text" : "";
          },
          "", ""};
}

std::string quotedText(const std::string& text) { return "'" + terminalText(text) + "'"; }

std::vector<std::string> argumentsOf(int argc, char** argv) {
  return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>();
}

int failTool(const char* program, const std::string& error, int status) {
  std::cerr << program << ": error: " << terminalText(error) << '\n';
  return status;
}

std::optional<int> startTool(const char* program, const CommandLineResult& parsed,
                             const std::function<std::string()>& usage) {
  if (!parsed.ok) {
    return failTool(program, parsed.error + " (see --help)", 2);
  }
  if (parsed.help) {
    std::cout << usage();
    return 0;
  }
  return std::nullopt;
}

}  // namespace veranda::reachabilityCache::tools
