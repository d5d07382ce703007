// How the msmface program names the person of a manifest identity: the identity with every
// character a key name cannot hold made '_' (and at most 48 of them). eval enrols identity k
// (counted from 1) as "p<k>_<name>", so that two identities that sanitise alike stay apart;
// a person enrolled by hand may carry the bare name.
#ifndef MSMFACE_TOOLS_MSMFACE_KEY_NAME_H
#define MSMFACE_TOOLS_MSMFACE_KEY_NAME_H

#include <cctype>
#include <string>

namespace msmcli {

inline std::string identityKeyName(const std::string& identity) {
    std::string name;
    for (char c : identity)
        name += (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_') ? c : '_';
    return name.substr(0, 48);
}

// eval's key name of its index-th person (from 0).
inline std::string keyNameOf(const std::string& identity, int index) {
    return "p" + std::to_string(index + 1) + "_" + identityKeyName(identity);
}

// True when keyName is the identity's bare name or eval's "p<k>_" form of it.
inline bool keyNameIsOf(const std::string& keyName, const std::string& identity) {
    const std::string bare = identityKeyName(identity);
    if (keyName == bare) return true;
    if (keyName.size() < bare.size() + 3 || keyName[0] != 'p') return false;
    const std::size_t underscore = keyName.size() - bare.size() - 1;
    if (keyName[underscore] != '_' || keyName.compare(underscore + 1, bare.size(), bare) != 0)
        return false;
    for (std::size_t i = 1; i < underscore; ++i)
        if (!std::isdigit(static_cast<unsigned char>(keyName[i]))) return false;
    return true;
}

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_KEY_NAME_H
