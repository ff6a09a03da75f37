// vidra-mjpeg: the command-line front end of the decoder library.

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "cli/cli.h"
#include "commands/commands.h"

namespace {

constexpr char kUsage[] =
    "usage: vidra-mjpeg <command> [options]\n"
    "\n"
    "Decodes (M)JPEG video with the vidra-mjpeg library: fast on camera frames, and tolerant\n"
    "of damaged ones.\n"
    "\n"
    "commands:\n"
    "  decode INPUT [-o OUT]   decode a JPEG, a raw MJPEG stream or an MJPEG track of an\n"
    "                          AVI/MKV/MOV file to Y4M or raw I420, with a summary\n"
    "  info INPUT              sizes, sampling, restart interval, DHT and JPEG quality of\n"
    "                          every frame\n"
    "  bench INPUT|DIR...      decoding speed of the library against libjpeg-turbo and\n"
    "                          FFmpeg, per input folder\n"
    "  demo                    render, encode, damage and decode a built-in clip; writes\n"
    "                          demo.y4m and demo-contact.png (the default command)\n"
    "\n"
    "Run 'vidra-mjpeg <command> --help' for the options of a command.\n"
    "\n"
    "exit status: 0 success, 1 some frames failed or were refused, 2 usage or I/O error.\n";

struct Command {
  const char* name;
  int (*run)(int argc, char** argv, int first);
};

constexpr Command kCommands[] = {
    {"decode", vidra::tool::runDecode},
    {"info", vidra::tool::runInfo},
    {"bench", vidra::tool::runBench},
    {"demo", vidra::tool::runDemo},
};

}  // namespace

int main(int argc, char** argv) {
  using vidra::tool::kExitUsage;
  // No command runs the demo, as `./build.sh demo` does.
  const std::string name = argc >= 2 ? argv[1] : "demo";
  if (name == "--help" || name == "-h" || name == "help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (name == "--version") {
    std::printf("vidra-mjpeg %s\n", VIDRA_MJPEG_VERSION);
    return 0;
  }
  for (const Command& command : kCommands) {
    if (name != command.name) continue;
    try {
      return command.run(argc, argv, argc >= 2 ? 2 : 1);
    } catch (const vidra::tool::UsageError& error) {
      std::fprintf(stderr, "vidra-mjpeg %s: %s\nRun 'vidra-mjpeg %s --help' for usage.\n",
                   command.name, error.what(), command.name);
      return error.code();
    } catch (const vidra::tool::ToolError& error) {
      std::fprintf(stderr, "vidra-mjpeg: %s\n", error.what());
      return error.code();
    } catch (const std::bad_alloc&) {
      std::fprintf(stderr, "vidra-mjpeg %s: out of memory\n", command.name);
      return kExitUsage;
    } catch (const std::exception& error) {
      // std::system_error, std::filesystem::filesystem_error, ...: an I/O error all the same.
      std::fprintf(stderr, "vidra-mjpeg %s: %s\n", command.name, error.what());
      return kExitUsage;
    }
  }
  std::fprintf(stderr, "vidra-mjpeg: unknown command '%s'\n\n%s", name.c_str(), kUsage);
  return kExitUsage;
}
