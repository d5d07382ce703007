// The files the msmface program reads and writes itself: every input is opened without blocking
// and read only when it is a regular file of bounded size, so that a pipe or a device named as a
// picture or a list never hangs the program; every output is written beside its target and
// renamed over it, and never over one of the command's own inputs.
#ifndef MSMFACE_TOOLS_MSMFACE_PROGRAM_FILES_H
#define MSMFACE_TOOLS_MSMFACE_PROGRAM_FILES_H

#include <cstddef>
#include <string>
#include <vector>

namespace msmcli {

// Reads the regular file at path, at most maxBytes long. Returns an empty string, or one line
// naming the file: missing, unreadable (and why), not a regular file, larger than allowed. `what`
// names what the file was expected to be ("a picture", "a list of frames").
std::string readInputFile(const std::string& path, std::size_t maxBytes, const std::string& what,
                          std::vector<unsigned char>& bytes);

// Replaces the file at path with bytes: a crash or a full disk leaves the old file or the new one,
// never half of it. Returns an empty string, or one line naming the file and the reason.
std::string writeOutputFile(const std::string& path, const void* bytes, std::size_t size);
inline std::string writeOutputFile(const std::string& path, const std::string& text) {
    return writeOutputFile(path, text.data(), text.size());
}

// A file written by a library that takes only a name (OpenCV's video writer): made beside the
// target under a temporary name with the target's ending (which picks the container), renamed
// over the target by commit(), removed when dropped uncommitted.
class OutputBeside {
  public:
    explicit OutputBeside(std::string target);
    ~OutputBeside();
    OutputBeside(const OutputBeside&) = delete;
    OutputBeside& operator=(const OutputBeside&) = delete;

    // Empty with error() saying why when no temporary could be made.
    const std::string& temporary() const { return temp_; }
    const std::string& error() const { return error_; }
    // Renames the finished temporary over the target. An empty string or one line saying why.
    std::string commit();

  private:
    std::string target_;
    std::string temp_;
    std::string error_;
};

// A command's inputs, checked before any output is written. An output is refused when it is one
// of the inputs: the same name, or another name of the same file (a symbolic or a hard link),
// or, for an output not yet written, a name that resolves to an input's.
class InputFiles {
  public:
    void add(const std::string& path);
    // A folder whose every file is an input (a dictionary directory): nothing is written in it.
    void addFolder(const std::string& path);
    // Empty when writing path (named by option, e.g. "--out") touches no input; else one line.
    std::string refuseOverwrite(const std::string& option, const std::string& path) const;

  private:
    struct Input {
        std::string path;
        std::string resolved;  // realpath, empty when it does not resolve
        unsigned long long device = 0;
        unsigned long long inode = 0;
        bool exists = false;
        bool folder = false;
    };
    std::vector<Input> inputs_;
};

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_PROGRAM_FILES_H
