// The msmface program's command line: every command with its flags, parsed into the commands'
// option structures, and the dispatch to the command that was named.
#ifndef MSMFACE_TOOLS_MSMFACE_COMMANDS_COMMAND_LINE_H
#define MSMFACE_TOOLS_MSMFACE_COMMANDS_COMMAND_LINE_H

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "commands/commands.h"

namespace msmcli {

class CommandLine {
  public:
    CommandLine();
    // The parser holds references into this object's members.
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    // The exit code when the program ends with the parsing (help, version, a usage error said on
    // standard error); nothing when a command is to run.
    std::optional<int> parse(int argc, char** argv);
    // Runs the command parse() found; its exit code.
    int run();

  private:
    void addDemo();
    void addEnrol();
    void addRecognise();
    void addDelete();
    void addList();
    void addConstraint();
    void addInspect();
    void addCheck();
    void addEval();
    void addCalibrate();
    void addDetect();
    void addWatch();
    int runParsed();

    CLI::App app_;

    DemoOptions demo_;
    EnrolOptions enrol_;
    RecogniseOptions recognise_;
    std::string deleteDir_;
    int deleteId_ = 0;
    bool deleteNoWait_ = false;
    std::string listDir_;
    std::string constraintDir_;
    int constraintDimension_ = 200;
    bool constraintNoWait_ = false;
    std::string inspectPath_;
    CheckOptions check_;
    EvalOptions eval_;
    CalibrateOptions calibrate_;
    DetectOptions detect_;
    WatchOptions watch_;

    CLI::App* demoCmd_ = nullptr;
    CLI::App* enrolCmd_ = nullptr;
    CLI::App* recogniseCmd_ = nullptr;
    CLI::App* deleteCmd_ = nullptr;
    CLI::App* listCmd_ = nullptr;
    CLI::App* constraintCmd_ = nullptr;
    CLI::App* inspectCmd_ = nullptr;
    CLI::App* checkCmd_ = nullptr;
    CLI::App* evalCmd_ = nullptr;
    CLI::App* calibrateCmd_ = nullptr;
    CLI::App* detectCmd_ = nullptr;
    CLI::App* watchCmd_ = nullptr;
};

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_COMMANDS_COMMAND_LINE_H
