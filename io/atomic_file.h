// Writing a file so that a crash, a full disk or a failed write never leaves a half-written file
// in place of the user's data: the bytes go to a temporary beside the target, reach the disk,
// and only then replace the target by rename.
#ifndef MSMFACE_IO_ATOMIC_FILE_H
#define MSMFACE_IO_ATOMIC_FILE_H

#include <cstdio>
#include <string>

namespace msm {

class AtomicFile {
  public:
    // Creates the temporary "<target>.tmpXXXXXX". stream() is null when that fails.
    explicit AtomicFile(const char* target);
    // For a writer that opens the file by name and picks the format by its ending (a video
    // encoder): creates the empty temporary "<folder>/.<name>.tmpXXXXXX<ending>" for it and opens
    // no stream. temporaryPath() is empty when the temporary cannot be made.
    struct NamedWriter {};
    AtomicFile(const char* target, NamedWriter);
    // Removes the temporary unless Commit succeeded.
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    std::FILE* stream() const { return stream_; }
    const std::string& temporaryPath() const { return temp_; }
    // Flushes, syncs, closes and renames over the target. True only when every write since
    // construction succeeded and the target now holds exactly those bytes; otherwise the
    // temporary is removed and the target is as it was. lastWriteFailure() says why not.
    bool Commit();

  private:
    void Abandon();
    // Whether the target's place may be taken by a rename; notes the failure when not.
    bool Replaceable();
    // Syncs and closes the written temporary; false with error set (0: unknown) when that fails.
    bool Finish(int& error);

    std::string target_;
    std::string temp_;
    std::FILE* stream_ = nullptr;
};

// The last file this thread failed to write and why ("<file>: <system reason>"), empty when none
// failed since clearWriteFailure(). The engine's writers return only true or false; a host that
// must tell its user which file a full disk or read-only medium refused asks here.
std::string lastWriteFailure();
void clearWriteFailure();
// Records a failure of path with the error number err (0: the reason is unknown).
void noteWriteFailure(const std::string& path, int err);

// Makes the renames in dir durable (best effort: a folder that cannot be opened is left as it is).
void syncDirectory(const std::string& dir);

// Writes to f and reports whether all n bytes went out.
bool writeAll(std::FILE* f, const void* data, std::size_t n);
bool writeInt32(std::FILE* f, int32_t v);

}  // namespace msm

#endif  // MSMFACE_IO_ATOMIC_FILE_H
