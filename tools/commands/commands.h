// The subcommands. Each parses its own options from argv[first..argc) and returns the exit
// code; failures that end a command early are thrown as ToolError.
#pragma once

namespace vidra {
namespace tool {

int runDecode(int argc, char** argv, int first);
int runInfo(int argc, char** argv, int first);
int runBench(int argc, char** argv, int first);
int runDemo(int argc, char** argv, int first);

}  // namespace tool
}  // namespace vidra
