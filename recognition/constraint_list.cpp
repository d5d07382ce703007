#include "recognition/constraint_list.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <vector>

#include "io/byte_reader.h"
#include "numeric/diagnostics.h"

namespace msm {

namespace {

// A hundred entries of two names each at most kMaxListToken long, with room to spare.
constexpr std::size_t kMaxListBytes = std::size_t{1} << 20;

// Whitespace-separated tokens from the list's bytes, each at most kMaxListToken characters.
class TokenReader {
  public:
    explicit TokenReader(const std::vector<unsigned char>& bytes) : bytes_(bytes) {}

    // False at the end of the file or for an over-long token.
    bool next(std::string& token) {
        token.clear();
        int ch = get();
        while (ch != EOF && std::isspace(ch)) ch = get();
        while (ch != EOF && !std::isspace(ch)) {
            if (token.size() == kMaxListToken) return false;
            token.push_back(static_cast<char>(ch));
            ch = get();
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
    int get() { return pos_ < bytes_.size() ? bytes_[pos_++] : EOF; }

    const std::vector<unsigned char>& bytes_;
    std::size_t pos_ = 0;
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
    // Read whole, without blocking: a FIFO or a device put in the list's place is refused instead
    // of holding the caller (and the directory's lock) forever.
    std::vector<unsigned char> bytes;
    if (!readWholeFile(path, bytes, nullptr, kMaxListBytes)) {
        diagnose("Can't file open %s\n", path != nullptr ? path : "");
        return ListRead::CannotOpen;
    }
    TokenReader in(bytes);
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
    return result;
}

}  // namespace msm
