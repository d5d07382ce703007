// msmface: the command-line host of the engine. Enrols persons into a dictionary directory,
// recognises them, keeps the constraint space, describes the engine's files, evaluates on a
// manifest of real faces, and shows it all on built-in synthetic faces (msmface demo).
#include <optional>

#include "commands/command_line.h"

int main(int argc, char** argv) {
    msmcli::CommandLine commandLine;
    if (const std::optional<int> ended = commandLine.parse(argc, argv)) return *ended;
    return commandLine.run();
}
