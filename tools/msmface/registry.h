// The persons of a dictionary directory as the msmface program knows them: ID number and key name
// per line of one text file in the directory. The engine's own files (".dck", ".mck", ".bmp")
// are written before a person enters this file and removed after the person left it, so the
// file never names a person whose dictionary is not complete.
#ifndef MSMFACE_TOOLS_MSMFACE_REGISTRY_H
#define MSMFACE_TOOLS_MSMFACE_REGISTRY_H

#include <string>
#include <vector>

namespace msmcli {

inline constexpr const char* kRegistryName = "persons.txt";
inline constexpr int kMaxKeyNameLength = 64;

struct Person {
    int id = 0;
    std::string name;
};

// Key names become file names: 1 to 64 letters, digits, '_', '-' or '.', not starting with '.'.
bool validKeyName(const std::string& name);

std::string registryPath(const std::string& dir);

// Reads the directory's persons into out (none when the file does not exist yet). Returns an empty
// string, or a one-line reason naming the file and the line that does not parse.
std::string loadRegistry(const std::string& dir, std::vector<Person>& out);

// Replaces the file with these persons: written to a temporary beside it, flushed to the disk and
// renamed over it, so a crash leaves either the old or the new list. Returns an empty string or a
// reason.
std::string saveRegistry(const std::string& dir, const std::vector<Person>& persons);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_REGISTRY_H
