// Checking and repairing a dictionary directory: the registry, the persons' files, the constraint
// space and what interrupted work left behind. A directory written only through this library
// (Gallery, the msmface program) never lists a person without complete files, even across a
// crash; what check reports comes from other hands, a failing disk, or files left by a process
// that was killed mid-write (temporaries, the files of an enrolment that never reached the
// registry).
//
// Threads and processes: both calls may run beside any other process on the directory; repair
// takes the directory's writer lock, check takes it shared while it reads.
#ifndef MSMFACE_STORE_H
#define MSMFACE_STORE_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <msmface/export.h>
#include <msmface/result.h>

namespace msmface {

// The files of a dictionary directory beside the engine's own (".dck", ".mck", ".bmp" per
// person, "cmsm.*" for the constraint space).
inline constexpr const char* kRegistryFileName = "persons.txt";
inline constexpr const char* kThresholdFileName = "threshold.txt";
inline constexpr const char* kConstraintListFileName = "constraint.list";
inline constexpr int kDefaultIdentifyThreshold = 850;
// Every change of the directory holds an exclusive lock on this file (never deleted).
inline constexpr const char* kLockFileName = ".msmface.lock";

// The kind of pattern a directory's dictionaries are made of, chosen when the directory is
// created and recorded in kPatternsFileName. A directory without that file holds Seed patterns,
// as every directory made before descriptors existed does; only directories of descriptors have
// the file (a Seed directory the gallery creates has none, and stays byte for byte what older
// versions read and write).
enum class PatternKind : int {
    Seed = 0,        // the engine's own: five 256-value channels from the normalised face
    Descriptor = 1,  // a learned descriptor: one channel of kDescriptorSize values
};
inline constexpr const char* kPatternsFileName = "patterns.txt";
// "seed", "descriptor": the names the directory's file, the program and Python use.
MSMFACE_API const char* patternKindName(PatternKind kind) noexcept;
MSMFACE_API std::optional<PatternKind> patternKindNamed(const std::string& name);
// The identify threshold of a directory of the kind that stores none.
MSMFACE_API int defaultIdentifyThreshold(PatternKind kind) noexcept;

// A person as the registry lists it.
struct Person {
    int id = 0;        // the host's ID number, 1 or more
    std::string name;  // key name: the base name of the person's files
};

// Left over from a process killed while writing: removed (temporaries) or moved into this folder
// of the directory (files that no registry entry names) by a repair, never deleted.
inline constexpr const char* kLostAndFoundName = "lost+found";

enum class StoreProblemKind : int {
    Registry,        // the registry cannot be read or parsed (not repaired: only a person knows)
    MissingFiles,    // a listed person's .dck or .mck does not exist
    UnreadableFile,  // a file the directory needs exists but does not read, or a person's
                     // dictionary that is not orthonormal or not of the directory's shape
    Orphan,          // a person's file that no registry entry names (repair: lost+found)
    Temporary,       // a temporary file of an interrupted write (repair: removed)
    Constraint,      // the constraint space does not load or is not this directory's
};

struct StoreProblem {
    StoreProblemKind kind = StoreProblemKind::Registry;
    std::string path;     // the file concerned
    std::string message;  // one line: "<path>: what does not agree"
    // True for the kinds a repair fixes without losing a registered person: Orphan, Temporary.
    bool repairable = false;
};

struct StoreReport {
    int persons = 0;  // entries of the registry
    // The kind of pattern the directory holds; empty when its kind file does not read (one of
    // the problems then says why).
    std::optional<PatternKind> patterns = std::nullopt;
    std::vector<StoreProblem> problems;  // in a stable order: by kind, then by path
    std::vector<std::string> repaired;   // one line per file removed or moved by a repair
    // Problems other than the leftovers Orphan and Temporary.
    bool damaged() const {
        for (const StoreProblem& p : problems)
            if (!p.repairable) return true;
        return false;
    }
};

struct LockOptions {
    bool wait = true;  // false: fail at once (ErrorKind::Busy) while another process writes
    // Told when the call has to wait, "waiting for the lock on DIR held by PID ...", and when it
    // got the lock after waiting, "got the lock on DIR after S s".
    std::function<void(const std::string&)> notice;
};

// Reports what in dir does not agree. Fails only when dir is not a readable directory.
MSMFACE_API Result<StoreReport> checkStore(const std::string& dir);

// Under the writer lock: removes the temporaries and moves the orphans into dir/lost+found, and
// with them the files of a listed person whose dictionary does not read or is not valid, then
// checks again. The report lists what was repaired and the problems that remain (a listed
// person whose files are missing or were moved stays listed: its entry is the only record of the
// ID number, and "msmface delete" removes it when the user decides to).
MSMFACE_API Result<StoreReport> repairStore(const std::string& dir, const LockOptions& lock = {});

}  // namespace msmface

#endif  // MSMFACE_STORE_H
