// The text list of constraint spaces:
//   S            number of spaces (at most 100)
//   selected     counted from 1; out of 1..S selects the first
//   S entries:   "MSM" | "CMSMF" stem dimension | "CMSML" stem dimension stem2
// Tokens are separated by white space; keywords match whole and case-sensitively.
#ifndef MSMFACE_RECOGNITION_CONSTRAINT_LIST_H
#define MSMFACE_RECOGNITION_CONSTRAINT_LIST_H

#include <cstdint>
#include <string>
#include <vector>

namespace msm {

constexpr int kMaxConstraintSpaces = 100;
// Longest token accepted; a longer one (no file name is that long) refuses the list.
constexpr std::size_t kMaxListToken = 4095;

enum ConstraintKind : int32_t {
    kKindUnset = 0,
    kKindPlain = 1,    // "MSM": no constraint
    kKindFile = 2,     // "CMSMF": a constraint subspace from stem.dck / stem.dckev
    kKindLearned = 3,  // "CMSML": the same, with a second set of files under stem2
};

struct ConstraintListEntry {
    int32_t kind = kKindUnset;
    int32_t dimension = 0;
    std::string stem;
    std::string stem2;
};

struct ConstraintList {
    int32_t declared = 0;                      // S as read (0 when S < 1)
    int32_t selected = 0;                      // 0-based
    std::vector<ConstraintListEntry> entries;  // declared entries; unread ones keep kind 0
};

enum class ListRead {
    Accepted,    // every space has a kind and at most one is "CMSML" (or S < 1)
    TooMany,     // S > 100: nothing may change
    Refused,     // read, but not acceptable (a space without kind, two "CMSML", bad token)
    CannotOpen,  // "Can't file open %s\n" has been printed
};

// Reads the list at path into out.
ListRead readConstraintList(const char* path, ConstraintList& out);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_CONSTRAINT_LIST_H
