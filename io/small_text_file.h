// The small text files of a dictionary directory (the registry, the threshold): read whole, with
// their size checked before a byte is read, and replaced atomically.
#ifndef MSMFACE_IO_SMALL_TEXT_FILE_H
#define MSMFACE_IO_SMALL_TEXT_FILE_H

#include <cstddef>
#include <string>

namespace msmface::detail {

enum class SmallFileRead {
    Ok,
    Missing,   // no such file (ENOENT)
    NotAFile,  // a folder, a device or a pipe
    TooLarge,  // more than the caller's limit
    Link,      // a symbolic link, with Links::Refuse
    Failed,    // any other failure; errno says why
};

// Refuse: the directory's own files are read only as themselves, never through a link to a file
// elsewhere whose text a message could then show.
enum class Links { Follow, Refuse };

// Reads the regular file at path into text when it holds at most maxBytes.
SmallFileRead readSmallTextFile(const std::string& path, std::size_t maxBytes, std::string& text,
                                Links links = Links::Follow);

// One line for a read that found the file but gave no text (NotAFile, Link, TooLarge, Failed; errno
// as the read left it): "<path>: <expected> in a file, found a folder or a device" and the like.
// Empty for Ok and Missing. limit: the size limit as the line says it ("4 KiB").
std::string smallFileReadProblem(SmallFileRead read, const std::string& path,
                                 const std::string& expected, const std::string& limit);

// At most maxChars of text as one printable line (other bytes shown as '?'), for messages that
// quote what a file held.
std::string quoteForMessage(const std::string& text, std::size_t maxChars = 24);

// Replaces the file at path (inside dir) with text: a crash leaves the old or the new file. Returns
// an empty string, or one line naming the file that could not be written and why.
std::string replaceSmallTextFile(const std::string& dir, const std::string& path,
                                 const std::string& text);

}  // namespace msmface::detail

#endif  // MSMFACE_IO_SMALL_TEXT_FILE_H
