// The library names the argument a message is about by its parameter ("id 3: ...", "name \"x\":
// ...", "dimension 0: ...", "threshold 1200: ..."); a user of the program knows it by its flag.
#ifndef MSMFACE_TOOLS_MSMFACE_COMMANDS_FLAG_NAMES_H
#define MSMFACE_TOOLS_MSMFACE_COMMANDS_FLAG_NAMES_H

#include <string>

namespace msmcli {

// The message with "--" before a leading parameter that is one of the program's flags, when a
// value and a colon follow it as the library writes them; any other message as it is.
inline std::string withFlagNames(const std::string& message) {
    for (const char* parameter : {"id ", "name ", "dimension ", "threshold "}) {
        const std::string p = parameter;
        if (message.compare(0, p.size(), p) != 0) continue;
        // The value: a quoted name (which may hold blanks and colons) or one word.
        std::size_t end = p.size();
        if (end < message.size() && message[end] == '"') {
            end = message.find('"', end + 1);
            if (end == std::string::npos) return message;
            ++end;
        } else {
            end = message.find_first_of(" :", end);
            if (end == std::string::npos || end == p.size()) return message;
        }
        return message.compare(end, 2, ": ") == 0 ? "--" + message : message;
    }
    return message;
}

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_COMMANDS_FLAG_NAMES_H
