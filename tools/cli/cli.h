// Command-line plumbing shared by the subcommands: exit codes, the error type that carries
// one, and a small option parser with generated --help text.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace vidra {
namespace tool {

// Exit codes of every subcommand.
enum ExitCode : int {
  kExitOk = 0,      // all frames decoded (or the command did what it was asked)
  kExitFrames = 1,  // the command ran, but some frames failed or were refused
  kExitUsage = 2,   // bad command line, unreadable input, unwritable output
};

// A failure that ends the command. `what()` is the complete message without the program
// name; main() prints it on stderr and exits with `code`.
class ToolError : public std::runtime_error {
 public:
  ToolError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

// A usage mistake: main() adds a pointer to the command's --help.
class UsageError : public ToolError {
 public:
  explicit UsageError(const std::string& message) : ToolError(kExitUsage, message) {}
};

// "path: strerror(errno)" as a ToolError with kExitUsage.
ToolError ioError(const std::string& path, const std::string& what, int error_number);

// Options of one subcommand. Declare them, then parse(); the values are read back by name.
class ArgParser {
 public:
  // `command` is the subcommand's name, `synopsis` the line after "usage: vidra-mjpeg",
  // `description` a paragraph shown under it.
  ArgParser(std::string command, std::string synopsis, std::string description);

  // A switch without value, e.g. flag("verbose", 'v', "print one line per frame").
  void flag(const std::string& name, char short_name, const std::string& help);
  // An option with a value, e.g. option("output", 'o', "FILE", "write the frames to FILE").
  void option(const std::string& name, char short_name, const std::string& value_name,
              const std::string& help, const std::string& default_value = "");
  // Adds a paragraph at the end of --help (examples, notes).
  void epilog(const std::string& text) { epilog_ = text; }

  // Parses argv[first..argc). Returns false when --help was given (the help text has been
  // printed on stdout); throws UsageError for anything it can't make sense of.
  bool parse(int argc, char** argv, int first);

  bool has(const std::string& name) const;
  std::string value(const std::string& name) const;
  // The value as an integer in [min, max]; `fallback` when the option is absent.
  int64_t integer(const std::string& name, int64_t fallback, int64_t min, int64_t max) const;
  double number(const std::string& name, double fallback, double min, double max) const;
  const std::vector<std::string>& positional() const { return positional_; }

  std::string help() const;
  const std::string& command() const { return command_; }

 private:
  struct Option {
    std::string name;
    char short_name;
    std::string value_name;  // empty for a flag
    std::string help;
    std::string default_value;
    bool seen = false;
    std::string value;
  };
  Option* find(const std::string& name);
  Option* findShort(char short_name);
  const Option& get(const std::string& name) const;

  std::string command_, synopsis_, description_, epilog_;
  std::vector<Option> options_;
  std::vector<std::string> positional_;
};

// Parses "W:H" or "W/H" or a plain number as a frame rate; false if it isn't one.
bool parseFrameRate(const std::string& text, int* num, int* den);

}  // namespace tool
}  // namespace vidra
