// The msmface program's commands. Each returns the process exit code and prints its own error as
// one line "msmface: ..." on standard error.
#ifndef MSMFACE_TOOLS_MSMFACE_COMMANDS_H
#define MSMFACE_TOOLS_MSMFACE_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

namespace msmcli {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

int fail(const std::string& message);

// Where the frames of one person come from.
struct FrameOptions {
    std::string manifest;
    std::string identity;
    std::vector<std::string> videos;  // empty: every video of the identity
    std::string points;
    double jitter = 0.0;
    int copies = 1;
};

struct DemoOptions {
    std::string out = "demo-out";
    int persons = 8;
    uint32_t seed = 1;
};

struct EnrolOptions {
    std::string dir;
    int id = 0;
    std::string name;
    FrameOptions frames;
};

struct RecogniseOptions {
    std::string dir;
    FrameOptions frames;
    int method = 1;
    int threshold = 850;
    int top = 5;
};

struct EvalOptions {
    std::string manifest;
    std::string out = "eval-out";
    double jitter = 1.5;
    int enrolFrames = 60;  // frames offered to each registration (it gathers 50)
    int probeFrames = 15;
    int dimension = 200;
    int threshold = 850;
};

int runDemo(const DemoOptions& o);
int runEnrol(const EnrolOptions& o);
int runRecognise(const RecogniseOptions& o);
int runDelete(const std::string& dir, int id);
int runList(const std::string& dir);
int runConstraint(const std::string& dir, int dimension);
int runInspect(const std::string& path);
int runEval(const EvalOptions& o);

// Creates dir (and its parent) when missing; an empty string or a reason.
std::string makeFolder(const std::string& dir);
// Removes the regular files directly inside dir (a previous run's results).
void clearFolder(const std::string& dir);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_COMMANDS_H
