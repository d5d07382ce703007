// The lock of a dictionary directory. Every change of a directory (enrolment, deletion, the
// constraint space, the threshold, a repair) holds it exclusively for the whole read-modify-write,
// so that two processes never both read the registry, change it and replace it (the later one
// would silently drop the earlier one's person). Loading a directory holds it shared, only while
// the files are read, so a reader never sees half of a change and never keeps a writer waiting for
// longer than one load.
//
// The lock is an advisory flock() on one file in the directory; the kernel drops it when its
// process dies, so a crashed writer never blocks anyone. The file's text names the current writer
// (PID, host, command) only so that a waiting process can say whom it waits for.
#ifndef MSMFACE_STORE_STORE_LOCK_H
#define MSMFACE_STORE_STORE_LOCK_H

#include <functional>
#include <string>

#include <msmface/result.h>
#include <msmface/store.h>

namespace msm {

using msmface::kLockFileName;

struct LockHolder {
    long pid = 0;         // 1 or more
    std::string host;     // one token of printable characters, may be empty
    std::string command;  // printable characters and blanks, may be empty
};

// The lock file's text: "<pid> <host> <command>\n" (host "-" when unknown).
std::string formatLockHolder(const LockHolder& holder);
// Reads what formatLockHolder wrote. False for anything else: a file of any other content,
// however broken, only means "some process" to a waiter.
bool parseLockHolder(const std::string& text, LockHolder& out);

enum class LockMode { Shared, Exclusive };

struct LockWait {
    bool wait = true;  // false: fail at once with ErrorKind::Busy when another process holds it
    // Called before the first wait with "waiting for the lock on DIR held by PID ...", and once the
    // lock is taken after waiting with "got the lock on DIR after S s".
    std::function<void(const std::string&)> notice;
};

class DirectoryLock {
  public:
    DirectoryLock() = default;
    ~DirectoryLock();
    DirectoryLock(DirectoryLock&& other) noexcept;
    DirectoryLock& operator=(DirectoryLock&& other) noexcept;
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

    // Takes the lock of directory dir. Exclusive: creates the lock file when it is missing and
    // fails (ErrorKind::File, naming the directory and the system's reason) when it cannot, as on
    // read-only media. Shared: where the lock file can neither be opened nor created, nobody can
    // write the directory through us either, and the call succeeds without holding anything.
    static msmface::Status acquire(const std::string& dir, LockMode mode, const LockWait& how,
                                   DirectoryLock& out);

    bool held() const { return fd_ >= 0; }
    // Gives the lock up (also done by the destructor).
    void release();

  private:
    int fd_ = -1;
    bool recordsHolder_ = false;  // an exclusive lock on a lock file of our own: names us in it
};

// The holder named in dir's lock file, or the empty string when it names none. For messages.
std::string describeLockHolder(const std::string& dir);

}  // namespace msm

#endif  // MSMFACE_STORE_STORE_LOCK_H
