// The msmface program's commands. Each returns the process exit code and prints its own error as
// one line "msmface: ..." on standard error.
#ifndef MSMFACE_TOOLS_MSMFACE_COMMANDS_H
#define MSMFACE_TOOLS_MSMFACE_COMMANDS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <msmface/gallery.h>

namespace msmcli {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// Prints "msmface: message" (a library message with the flag of the argument it names, see
// withFlagNames) on standard error; returns kExitFailure.
int fail(const std::string& message);

// True when path is a folder (following links).
bool isDirectory(const std::string& path);

// Where the frames of one person come from.
struct FrameOptions {
    std::string manifest;
    std::string identity;
    // With a manifest: only these of the identity's videos (empty: all). Without: one video file
    // whose faces are found.
    std::vector<std::string> videos;
    std::string points;
    double jitter = 0.0;
    int copies = 1;
    std::vector<std::string> images;  // picture files whose faces are found
    int camera = -1;                  // camera index; -1: none
    int frames = 0;                   // frames taken from a video or camera; 0: all (camera: 100)
    std::string model;                // landmark model; empty: the detector's default
    std::string descriptorModel;      // descriptor model; empty: the descriptor's default
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
    bool noWait = false;  // fail at once while another process writes the directory
    // "seed" or "descriptor": the kind of a new directory, which an existing one must have;
    // empty: whatever the directory holds (seed for a new one).
    std::string patterns;
};

struct RecogniseOptions {
    std::string dir;
    FrameOptions frames;
    int method = 1;
    int threshold = -1;  // the directory's stored threshold (850 when none is stored)
    int top = 5;
};

struct EvalOptions {
    std::string manifest;
    std::string out = "eval-out";
    double jitter = 1.5;
    int enrolFrames = 60;  // frames offered to each registration (it gathers 50)
    int probeFrames = 15;
    int dimension = 200;
    int threshold = msmface::kDefaultIdentifyThreshold;
    std::vector<int> sweep;  // CMSM dimensions to compare; empty: a handful up to the span
    bool noSweep = false;
    bool detect = false;            // points found by the detector instead of the manifest's
    std::string patterns = "seed";  // the kinds of pattern evaluated: seed, descriptor or both
    int descriptorDimension = 64;   // CMSM's constraint dimension over descriptors
    int descriptorThreshold = -1;   // -1: the identify threshold of descriptor directories
};

struct CalibrateOptions {
    std::string dir;
    std::string manifest;
    double far = 0.01;
    int method = 1;
    double jitter = 1.5;
    int probeFrames = 15;
    std::string scores;   // when given, every score as CSV
    bool noWait = false;  // fail at once while another process writes the directory
    // A directory of descriptors: the models that describe the manifest's frames.
    std::string model;            // landmark model; empty: the detector's default
    std::string descriptorModel;  // empty: the descriptor's default
};

struct CheckOptions {
    std::string dir;
    bool repair = false;
    bool noWait = false;
};

int runDemo(const DemoOptions& o);
// Exit 0 when nothing is reported (after a repair: nothing remains), 1 otherwise.
int runCheck(const CheckOptions& o);
int runEnrol(const EnrolOptions& o);
int runRecognise(const RecogniseOptions& o);
int runDelete(const std::string& dir, int id, bool noWait);
int runList(const std::string& dir);
int runConstraint(const std::string& dir, int dimension, bool noWait);
int runInspect(const std::string& path);
int runEval(const EvalOptions& o);
int runCalibrate(const CalibrateOptions& o);
// The directory opened for a command: waiting for its lock is said on standard error, or with
// noWait refused at once; persons listed without their files are warned about. patterns: the kind
// a new directory records and an existing one must have (nothing: whatever it holds).
msmface::Result<msmface::Gallery> openGallery(
    const std::string& dir, bool create = false, bool noWait = false,
    std::optional<msmface::PatternKind> patterns = std::nullopt);

struct DetectOptions {
    std::vector<std::string> images;
    std::string video;
    int frames = 0;
    std::string out;      // points file; empty: standard output
    std::string overlay;  // folder for the drawn frames; empty: none
    std::string model;
};
int runDetect(const DetectOptions& o);

struct WatchOptions {
    std::string dir;
    std::string video;
    int camera = -1;
    int frames = 0;  // 0: the whole video; a camera runs until interrupted
    int method = 1;
    int threshold = -1;  // -1: the threshold stored in the directory
    std::string annotate;
    std::string model;
    std::string descriptorModel;  // a directory of descriptors; empty: the descriptor's default
    std::string events;           // JSON Lines of the events; empty: none
    int faces = 8;                // the most faces followed in a frame, the largest first
    int confirm = 3;              // faces in a row that name a track
};
int runWatch(const WatchOptions& o);

// The folder out/dictionary for a run of command ("demo", "eval"): made when missing, emptied
// when every file in it is one an earlier finished run of command recorded leaving there (its
// lock file stays), refused untouched otherwise. An empty string or one line saying why.
std::string prepareRunDictionary(const std::string& out, const std::string& command);
// Records the files the run leaves in out/dictionary, so that the next run may replace them.
std::string recordRunDictionary(const std::string& out, const std::string& command);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_COMMANDS_H
