#include "cli/cli.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vidra {
namespace tool {

namespace {

// Breaks `text` at spaces so that no line passes column `width`; lines after the first are
// indented by `indent` (the first one already stands there).
std::string wrap(const std::string& text, size_t indent, size_t width) {
  std::string out, line;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(' ', start);
    if (end == std::string::npos) end = text.size();
    const std::string word = text.substr(start, end - start);
    if (!line.empty() && indent + line.size() + 1 + word.size() > width) {
      out += line + "\n" + std::string(indent, ' ');
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
    start = end + 1;
  }
  return out + line;
}

}  // namespace

ToolError ioError(const std::string& path, const std::string& what, int error_number) {
  std::string message = path + ": " + what;
  if (error_number != 0) message += ": " + std::string(std::strerror(error_number));
  return ToolError(kExitUsage, message);
}

ArgParser::ArgParser(std::string command, std::string synopsis, std::string description)
    : command_(std::move(command)),
      synopsis_(std::move(synopsis)),
      description_(std::move(description)) {
  flag("help", 'h', "show this help and exit");
}

void ArgParser::flag(const std::string& name, char short_name, const std::string& help) {
  options_.push_back({name, short_name, "", help, "", false, ""});
}

void ArgParser::option(const std::string& name, char short_name, const std::string& value_name,
                       const std::string& help, const std::string& default_value) {
  options_.push_back({name, short_name, value_name, help, default_value, false, ""});
}

ArgParser::Option* ArgParser::find(const std::string& name) {
  for (Option& option : options_) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

ArgParser::Option* ArgParser::findShort(char short_name) {
  for (Option& option : options_) {
    if (short_name != 0 && option.short_name == short_name) return &option;
  }
  return nullptr;
}

const ArgParser::Option& ArgParser::get(const std::string& name) const {
  for (const Option& option : options_) {
    if (option.name == name) return option;
  }
  // Asking for an undeclared option is a mistake in the tool itself.
  throw std::logic_error("undeclared option --" + name);
}

bool ArgParser::parse(int argc, char** argv, int first) {
  bool options_done = false;
  for (int i = first; i < argc; ++i) {
    const std::string arg = argv[i];
    if (options_done || arg == "-" || arg.size() < 2 || arg[0] != '-') {
      positional_.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_done = true;
      continue;
    }
    Option* option = nullptr;
    std::string inline_value;
    bool has_inline_value = false;
    std::string shown;  // the option as the user wrote it, for messages
    if (arg[1] == '-') {
      const size_t equals = arg.find('=');
      const std::string name = arg.substr(2, equals == std::string::npos ? equals : equals - 2);
      shown = "--" + name;
      option = find(name);
      if (equals != std::string::npos) {
        inline_value = arg.substr(equals + 1);
        has_inline_value = true;
      }
    } else {
      shown = arg.substr(0, 2);
      option = findShort(arg[1]);
      if (arg.size() > 2) {
        inline_value = arg.substr(2);
        has_inline_value = true;
      }
    }
    if (option == nullptr) throw UsageError("unknown option '" + shown + "'");
    if (option->value_name.empty()) {
      if (has_inline_value) throw UsageError("option '" + shown + "' takes no value");
      option->seen = true;
      continue;
    }
    if (has_inline_value) {
      option->value = inline_value;
    } else {
      if (i + 1 >= argc) {
        throw UsageError("option '" + shown + "' needs a value (" + option->value_name + ")");
      }
      option->value = argv[++i];
    }
    option->seen = true;
  }
  if (has("help")) {
    std::fputs(help().c_str(), stdout);
    return false;
  }
  return true;
}

bool ArgParser::has(const std::string& name) const { return get(name).seen; }

std::string ArgParser::value(const std::string& name) const {
  const Option& option = get(name);
  return option.seen ? option.value : option.default_value;
}

int64_t ArgParser::integer(const std::string& name, int64_t fallback, int64_t min,
                           int64_t max) const {
  if (!has(name)) return fallback;
  const std::string text = value(name);
  errno = 0;
  char* end = nullptr;
  const long long parsed = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || parsed < min || parsed > max) {
    throw UsageError("--" + name + " expects a whole number from " + std::to_string(min) + " to " +
                     std::to_string(max) + ", got '" + text + "'");
  }
  return parsed;
}

double ArgParser::number(const std::string& name, double fallback, double min, double max) const {
  if (!has(name)) return fallback;
  const std::string text = value(name);
  char* end = nullptr;
  const double parsed = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(parsed) || parsed < min || parsed > max) {
    char range[96];
    std::snprintf(range, sizeof(range), "a number from %g to %g", min, max);
    throw UsageError("--" + name + " expects " + range + ", got '" + text + "'");
  }
  return parsed;
}

std::string ArgParser::help() const {
  std::string text = "usage: vidra-mjpeg " + synopsis_ + "\n\n" + description_ + "\n\noptions:\n";
  for (const Option& option : options_) {
    std::string left = "  ";
    left += option.short_name ? std::string("-") + option.short_name + ", " : "    ";
    left += "--" + option.name;
    if (!option.value_name.empty()) left += " " + option.value_name;
    if (left.size() < 28)
      left.resize(28, ' ');
    else
      left += "\n" + std::string(28, ' ');
    std::string help = option.help;
    if (!option.default_value.empty()) help += " (default " + option.default_value + ")";
    text += left + wrap(help, 28, 92) + "\n";
  }
  if (!epilog_.empty()) text += "\n" + epilog_;
  if (text.back() != '\n') text += "\n";
  return text;
}

bool parseFrameRate(const std::string& text, int* num, int* den) {
  const size_t split = text.find_first_of(":/");
  char* end = nullptr;
  if (split == std::string::npos) {
    const long n = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || n <= 0 || n > 1000000) return false;
    *num = static_cast<int>(n);
    *den = 1;
    return true;
  }
  const std::string a = text.substr(0, split), b = text.substr(split + 1);
  const long n = std::strtol(a.c_str(), &end, 10);
  if (a.empty() || *end != '\0') return false;
  const long d = std::strtol(b.c_str(), &end, 10);
  if (b.empty() || *end != '\0') return false;
  if (n <= 0 || d <= 0 || n > 1000000000 || d > 1000000000) return false;
  *num = static_cast<int>(n);
  *den = static_cast<int>(d);
  return true;
}

}  // namespace tool
}  // namespace vidra
