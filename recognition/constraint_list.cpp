#include "recognition/constraint_list.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace msm {

namespace {

// Whitespace-separated tokens from a stream, each at most kMaxListToken characters.
class TokenReader {
  public:
    explicit TokenReader(std::FILE* f) : f_(f) {}

    // False at the end of the file or for an over-long token.
    bool next(std::string& token) {
        token.clear();
        int ch = std::fgetc(f_);
        while (ch != EOF && std::isspace(ch)) ch = std::fgetc(f_);
        while (ch != EOF && !std::isspace(ch)) {
            if (token.size() == kMaxListToken) return false;
            token.push_back(static_cast<char>(ch));
            ch = std::fgetc(f_);
        }
        return !token.empty();
    }

    // A decimal integer token within the int32 range.
    bool nextInt(int32_t& value) {
        std::string token;
        if (!next(token)) return false;
        errno = 0;
        char* end = nullptr;
        long long v = std::strtoll(token.c_str(), &end, 10);
        if (errno != 0 || end == token.c_str() || *end != '\0' ||
            v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max())
            return false;
        value = static_cast<int32_t>(v);
        return true;
    }

  private:
    std::FILE* f_;
};

// Reads one entry; false ends the reading (the entry keeps kind 0).
bool readEntry(TokenReader& in, ConstraintListEntry& entry) {
    std::string keyword;
    if (!in.next(keyword)) return false;
    ConstraintListEntry e;
    if (keyword == "MSM") {
        e.kind = kKindPlain;
    } else if (keyword == "CMSMF") {
        if (!in.next(e.stem) || !in.nextInt(e.dimension)) return false;
        e.kind = kKindFile;
    } else if (keyword == "CMSML") {
        if (!in.next(e.stem) || !in.nextInt(e.dimension) || !in.next(e.stem2)) return false;
        e.kind = kKindLearned;
    } else {
        return false;
    }
    entry = std::move(e);
    return true;
}

}  // namespace

ListRead readConstraintList(const char* path, ConstraintList& out) {
    out = ConstraintList{};
    std::FILE* f = path != nullptr ? std::fopen(path, "r") : nullptr;
    if (f == nullptr) {
        std::fprintf(stderr, "Can't file open %s\n", path != nullptr ? path : "");
        return ListRead::CannotOpen;
    }
    TokenReader in(f);
    int32_t declared = 0;
    ListRead result = ListRead::Refused;
    if (!in.nextInt(declared)) {
        result = ListRead::Refused;
    } else if (declared > kMaxConstraintSpaces) {
        result = ListRead::TooMany;
    } else if (declared < 1) {
        result = ListRead::Accepted;
    } else {
        out.declared = declared;
        out.entries.resize(declared);
        int32_t selected = 0;
        bool ok = in.nextInt(selected);
        out.selected = selected >= 1 && selected <= declared ? selected - 1 : 0;
        for (int i = 0; ok && i < declared; ++i) ok = readEntry(in, out.entries[i]);
        int learned = 0;
        bool allKinds = true;
        for (const auto& e : out.entries) {
            learned += e.kind == kKindLearned ? 1 : 0;
            allKinds = allKinds && e.kind != kKindUnset;
        }
        result = allKinds && learned <= 1 ? ListRead::Accepted : ListRead::Refused;
    }
    std::fclose(f);
    return result;
}

}  // namespace msm
