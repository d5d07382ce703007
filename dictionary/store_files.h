// The names a dictionary directory holds, as this library writes them: each person's ".dck",
// ".mck", ".bmp" (and ".dckev" from older writers), the registry, the threshold, the constraint
// list and its "cmsm.*" files, the lock, and the temporaries that every replacement writes beside
// its target first.
#ifndef MSMFACE_DICTIONARY_STORE_FILES_H
#define MSMFACE_DICTIONARY_STORE_FILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace msm {

inline constexpr const char* kPersonListName = "persons.txt";
inline constexpr const char* kThresholdName = "threshold.txt";
inline constexpr const char* kConstraintListName = "constraint.list";
inline constexpr const char* kConstraintStem = "cmsm";

// The constraint space's files are "<stem>.*" for one of these stems: a rebuild writes the stem the
// list does not name, and only the list's replacement makes it the current one, so a rebuild that
// fails or is killed half-way leaves the old space whole.
inline constexpr const char* kConstraintStems[] = {"cmsm", "cmsm-2"};
bool isConstraintStem(const std::string& stem);

// What a reader compares to notice that another process changed the directory: identity, size
// and time of the files every change replaces (the registry, the threshold, the constraint list).
// Each is replaced by a rename, so even a change within one clock tick gives a new inode.
struct DirectoryStamp {
    struct File {
        bool exists = false;
        uint64_t device = 0, inode = 0, size = 0;
        int64_t modifiedNs = 0;
        bool operator==(const File& o) const {
            return exists == o.exists && device == o.device && inode == o.inode && size == o.size &&
                   modifiedNs == o.modifiedNs;
        }
    };
    File files[3];
    bool operator==(const DirectoryStamp& o) const {
        return files[0] == o.files[0] && files[1] == o.files[1] && files[2] == o.files[2];
    }
    bool operator!=(const DirectoryStamp& o) const { return !(*this == o); }
};
DirectoryStamp stampOf(const std::string& dir);

// A temporary of one of our writers: "<file we write>.tmp" followed by six characters of mkstemp or
// the writer's PID, or the probe ".msmface-write-check<PID>". Nothing a user names like this is
// touched: the part before ".tmp" must be a name we write.
bool isOwnTemporaryName(const std::string& name);

// The stem of a person's file ("alice" for "alice.dck"), or empty for every other name.
std::string personStemOf(const std::string& name);

// The regular files directly inside dir, sorted.
std::vector<std::string> regularFilesIn(const std::string& dir);

// Removes the temporaries of interrupted writes and returns their names. requires: the caller holds
// dir's exclusive lock (a live writer's temporary must not vanish under it).
std::vector<std::string> removeOwnTemporaries(const std::string& dir);

}  // namespace msm

#endif  // MSMFACE_DICTIONARY_STORE_FILES_H
