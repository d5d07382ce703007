// The names a dictionary directory holds, as this library writes them: each person's ".dck",
// ".mck", ".bmp" (and ".dckev" from older writers), the registry, the threshold, the constraint
// list and its "cmsm.*" files, the lock, and the temporaries that every replacement writes beside
// its target first.
#ifndef MSMFACE_STORE_STORE_FILES_H
#define MSMFACE_STORE_STORE_FILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace msm {

// The files of a person "<key name><extension>".
inline constexpr const char* kPersonExtensions[] = {".dck", ".mck", ".bmp", ".dckev"};

// The constraint space's files are "<stem>.*" for one of these stems: a rebuild writes a stem the
// list does not name, and only the list's replacement makes it the current one, so a rebuild that
// fails or is killed half-way leaves the old space whole. The third lets a rebuild step around a
// person that an older version let enrol under one of the others.
inline constexpr const char* kConstraintStems[] = {"cmsm", "cmsm-2", "cmsm-3"};
bool isConstraintStem(const std::string& stem);

// An open file or folder, closed with its owner.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    ~FileDescriptor() { reset(-1); }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    void reset(int fd);
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

// True for a key name whose files would be the store's own: a constraint stem, in any case (a
// directory copied to a medium that folds case makes "CMSM.dck" and "cmsm.dck" one file). Every
// other file of the directory cannot be a person's: the registry, the threshold and the list do
// not end in a person's extension, the lock, the write probe and lost+found hold characters no
// key name may start with or contain, and a temporary ends in six letters or digits, never in
// ".dck", ".mck", ".bmp" or ".dckev".
bool isReservedKeyName(const std::string& name);
// One line for a reserved key name: "<name>: ..." saying why it cannot be a person's.
std::string reservedKeyNameReason(const std::string& name);

// The absolute path of path with every link resolved, or empty when it does not resolve.
std::string realPath(const std::string& path);

// Why dir's constraint list cannot be taken as this directory's own ("" when it can, or when
// there is none): a symbolic link, or anything but a regular file, is refused without a byte of
// it being read; a list that names a space in another folder (a copied or moved directory) is
// refused as well, since loading it would use the other directory's files. One line, asking for
// the space to be built again.
std::string constraintListProblem(const std::string& dir);

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

#endif  // MSMFACE_STORE_STORE_FILES_H
