#include "store/registry.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <sstream>

#include "io/atomic_file.h"
#include "io/small_text_file.h"

namespace msmface::detail {

bool validKeyName(const std::string& name) {
    if (name.empty() || name.size() > static_cast<std::size_t>(kMaxKeyNameLength) ||
        name.front() == '.')
        return false;
    for (char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '-' || c == '.'))
            return false;
    return true;
}

std::string registryPath(const std::string& dir) {
    return dir + "/" + kRegistryFileName;
}

std::string parseRegistry(const std::string& text, std::vector<Person>& out) {
    out.clear();
    std::istringstream in(text);
    std::string line;
    std::set<int> ids;
    std::set<std::string> names;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        Person p;
        std::string rest;
        if (!(fields >> p.id >> p.name) || (fields >> rest) || p.id < 1 || !validKeyName(p.name)) {
            out.clear();
            return "line " + std::to_string(number) + ": expected \"<ID number> <key name>\"";
        }
        if (!ids.insert(p.id).second || !names.insert(p.name).second) {
            out.clear();
            return "line " + std::to_string(number) + ": ID number or key name twice";
        }
        out.push_back(p);
    }
    return {};
}

std::string loadRegistry(const std::string& dir, std::vector<Person>& out) {
    out.clear();
    const std::string path = registryPath(dir);
    std::string text;
    const SmallFileRead read = readSmallTextFile(path, kMaxRegistryBytes, text, Links::Refuse);
    if (read == SmallFileRead::Missing) return {};
    if (read == SmallFileRead::Link)
        return path +
               ": expected a list of persons in a file of the directory, found a symbolic "
               "link";
    if (read == SmallFileRead::NotAFile || read == SmallFileRead::TooLarge)
        return path + ": expected a list of persons, found something else";
    if (read != SmallFileRead::Ok) return path + ": cannot be read (" + std::strerror(errno) + ")";
    std::string error = parseRegistry(text, out);
    return error.empty() ? error : path + ": " + error;
}

std::string formatRegistry(const std::vector<Person>& persons) {
    std::string text = "# msmface persons: ID number, key name\n";
    for (const Person& p : persons) text += std::to_string(p.id) + " " + p.name + "\n";
    return text;
}

std::string saveRegistry(const std::string& dir, const std::vector<Person>& persons) {
    return replaceSmallTextFile(dir, registryPath(dir), formatRegistry(persons));
}

}  // namespace msmface::detail
