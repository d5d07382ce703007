// The persons of a dictionary directory: ID number and key name per line of one text file in the
// directory ("persons.txt"). The engine's own files (".dck", ".mck", ".bmp") are written before a
// person enters this file and removed after the person left it, so the file never names a person
// whose dictionary is not complete.
#ifndef MSMFACE_STORE_REGISTRY_H
#define MSMFACE_STORE_REGISTRY_H

#include <string>
#include <vector>

#include <msmface/store.h>

namespace msmface::detail {

inline constexpr int kMaxKeyNameLength = 64;
// A registry beyond this is not one we wrote: refused before it is read.
inline constexpr std::size_t kMaxRegistryBytes = 16 * 1024 * 1024;

// Key names become file names: 1 to 64 letters, digits, '_', '-' or '.', not starting with '.'.
bool validKeyName(const std::string& name);

std::string registryPath(const std::string& dir);

// Parses the registry's text: '#' lines and blank lines are skipped, every other line is
// "<ID number> <key name>" with an ID of 1 or more, a valid key name, each ID and name once.
// Returns an empty string, or "line N: ..." naming what does not parse.
std::string parseRegistry(const std::string& text, std::vector<Person>& out);

// Reads the directory's persons into out (none when the file does not exist yet). Returns an empty
// string, or a one-line reason naming the file and the line that does not parse.
std::string loadRegistry(const std::string& dir, std::vector<Person>& out);

// The text saveRegistry writes.
std::string formatRegistry(const std::vector<Person>& persons);

// Replaces the file with these persons: written to a temporary beside it, flushed to the disk and
// renamed over it, so a crash leaves either the old or the new list. Returns an empty string or a
// reason naming the directory or the file.
std::string saveRegistry(const std::string& dir, const std::vector<Person>& persons);

}  // namespace msmface::detail

#endif  // MSMFACE_STORE_REGISTRY_H
