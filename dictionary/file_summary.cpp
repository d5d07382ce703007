// The description behind msmface_describeFile: one reader per file kind, each built on the
// container that the engine itself reads the file with, so a file described here is a file the
// engine accepts.
#include <msmface/FileSummary.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "dictionary/CCOVImage.h"
#include "dictionary/CCSDImage.h"
#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"
#include "io/byte_reader.h"

namespace msm {
namespace {

constexpr int kShownValues = 5;  // leading values printed per set or matrix

void appendf(std::string& out, const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    out += line;
}

bool endsWithNoCase(const std::string& s, const char* suffix) {
    const std::size_t n = std::strlen(suffix);
    if (s.size() < n) return false;
    for (std::size_t i = 0; i < n; ++i)
        if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) !=
            std::tolower(static_cast<unsigned char>(suffix[i])))
            return false;
    return true;
}

bool startsWith(const std::vector<unsigned char>& bytes, const char* magic) {
    const std::size_t n = std::strlen(magic);
    return bytes.size() >= n && std::memcmp(bytes.data(), magic, n) == 0;
}

double rowLength(const float* row, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum += static_cast<double>(row[i]) * row[i];
    return std::sqrt(sum);
}

// Trace and the largest absolute element of a packed upper triangle of order n.
void packedStatistics(const float* e, int n, double& trace, double& largest) {
    trace = 0.0;
    largest = 0.0;
    std::size_t k = 0;
    for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j, ++k) {
            if (i == j) trace += e[k];
            largest = std::max(largest, std::fabs(static_cast<double>(e[k])));
        }
}

void appendDate(std::string& out, int32_t date, int32_t time) {
    appendf(out, "%04d-%02d-%02d %02d:%02d:%02d", date / 10000, date / 100 % 100, date % 100,
            time / 10000, time / 100 % 100, time % 100);
}

bool describeDictionary(const std::vector<unsigned char>& bytes, bool eigenvalues,
                        std::string& out) {
    DictChunk chunk;
    chunk.SetModeAndLimit(kDicPrimFloat, 0);
    if (chunk.ReadBytes(bytes.data(), bytes.size(), 1, 0, 0) != 1) return false;
    appendf(out, "%s: %d set%s\n",
            eigenvalues ? "eigenvalue file (\"DCK\")" : "dictionary chunk file (\"DCK\")",
            chunk.count, chunk.count == 1 ? "" : "s");
    for (int i = 0; i < chunk.count; ++i) {
        const DicPrim& p = chunk.prims[i];
        appendf(out, "  set %d: %d vector%s of %d value%s", i, p.count, p.count == 1 ? "" : "s",
                p.dim, p.dim == 1 ? "" : "s");
        if (chunk.nanFlags[i] != 0) out += ", held a value that is not a number (read as zeros)";
        const int shown = std::min(p.count, kShownValues);
        if (p.frows != nullptr && shown > 0 && p.dim == 1) {
            double sum = 0.0;
            for (int r = 0; r < p.count; ++r) sum += p.frows[r][0];
            out += ", values";
            for (int r = 0; r < shown; ++r) appendf(out, " %.6g", p.frows[r][0]);
            if (p.count > shown) out += " ...";
            appendf(out, " (sum %.6g)", sum);
        } else if (p.frows != nullptr && shown > 0) {
            out += ", lengths";
            for (int r = 0; r < shown; ++r) appendf(out, " %.4f", rowLength(p.frows[r], p.dim));
            if (p.count > shown) out += " ...";
        }
        out += "\n";
    }
    return true;
}

bool describeMatrixChunk(const std::vector<unsigned char>& bytes, std::string& out) {
    MtrxChunk chunk;
    if (chunk.ReadBytes(bytes.data(), bytes.size(), 1, 0, 0) != 1) return false;
    appendf(out, "matrix chunk file (\"MCK\"): %d matri%s\n", chunk.count,
            chunk.count == 1 ? "x" : "ces");
    for (int i = 0; i < chunk.count; ++i) {
        const MrxPrim& m = chunk.prims[i];
        double trace = 0.0, largest = 0.0;
        if (m.elements != nullptr) packedStatistics(m.elements, m.order, trace, largest);
        appendf(out, "  matrix %d: order %d, number %d, written ", i, m.order, m.number);
        appendDate(out, m.date, m.time);
        appendf(out, ", trace %.6g, largest |element| %.6g\n", trace, largest);
    }
    return true;
}

bool describeVectorFile(const std::vector<unsigned char>& bytes, std::string& out) {
    CCSDImage image;
    if (image.ReadBytes(bytes.data(), bytes.size(), 0, 1) != 1) return false;
    const char* form = startsWith(bytes, "CSF")   ? "binary, float"
                       : startsWith(bytes, "CSD") ? "binary, double"
                                                  : "text";
    appendf(out, "vector file (\"CS\", %s): %d vector%s of %d value%s\n", form, image.count,
            image.count == 1 ? "" : "s", image.dim, image.dim == 1 ? "" : "s");
    const int shown = std::min(image.count, kShownValues);
    for (int k = 0; k < shown && image.drows != nullptr; ++k) {
        double sum = 0.0;
        for (int i = 0; i < image.dim; ++i) sum += image.drows[k][i] * image.drows[k][i];
        appendf(out, "  vector %d: length %.6g", k, std::sqrt(sum));
        for (int i = 0; i < std::min(image.dim, kShownValues); ++i)
            appendf(out, "%s%.6g", i == 0 ? ", values " : " ", image.drows[k][i]);
        out += image.dim > kShownValues ? " ...\n" : "\n";
    }
    if (image.count > shown) appendf(out, "  ... %d more\n", image.count - shown);
    return true;
}

bool describeMatrixFile(const std::vector<unsigned char>& bytes, std::string& out) {
    CCOVImage image;
    if (image.ReadBytes(bytes.data(), bytes.size()) != 1) return false;
    const char* form = startsWith(bytes, "COV")   ? "binary \"COV\""
                       : startsWith(bytes, "MOV") ? "binary \"MOV\""
                                                  : "text";
    double trace = 0.0, largest = 0.0;
    if (image.elements != nullptr) packedStatistics(image.elements, image.order, trace, largest);
    appendf(out, "matrix file (%s): order %d, number %d", form, image.order, image.number);
    if (image.matrixNumber > 0) appendf(out, ", matrix number %d", image.matrixNumber);
    out += ", written ";
    appendDate(out, image.date, image.time);
    appendf(out, "\n  trace %.6g, largest |element| %.6g\n", trace, largest);
    return true;
}

enum class Kind { Dictionary, MatrixChunk, VectorFile, MatrixFile, Unknown };

Kind kindOf(const std::string& path, const std::vector<unsigned char>& bytes) {
    if (startsWith(bytes, "DCK")) return Kind::Dictionary;
    if (startsWith(bytes, "MCK")) return Kind::MatrixChunk;
    if (startsWith(bytes, "CSF") || startsWith(bytes, "CSD")) return Kind::VectorFile;
    if (startsWith(bytes, "COV") || startsWith(bytes, "MOV")) return Kind::MatrixFile;
    // The text forms carry no signature: only the name tells them apart.
    if (endsWithNoCase(path, ".cs")) return Kind::VectorFile;
    if (endsWithNoCase(path, ".cov") || endsWithNoCase(path, ".mov")) return Kind::MatrixFile;
    return Kind::Unknown;
}

const char* expectedForm(Kind kind) {
    switch (kind) {
        case Kind::Dictionary:
            return "a dictionary chunk";
        case Kind::MatrixChunk:
            return "a matrix chunk";
        case Kind::VectorFile:
            return "a vector (\"CS\") file";
        case Kind::MatrixFile:
            return "a matrix (\"COV\"/\"MOV\") file";
        default:
            return "a known file";
    }
}

// True with the description in out, false with the reason in out.
bool describe(const std::string& path, std::string& out) {
    std::vector<unsigned char> bytes;
    std::string why;
    if (!readWholeFile(path.c_str(), bytes, &why)) {
        out = path + ": cannot be read (" + why + ")";
        return false;
    }
    const Kind kind = kindOf(path, bytes);
    bool ok = false;
    switch (kind) {
        case Kind::Dictionary:
            ok = describeDictionary(bytes, endsWithNoCase(path, ".dckev"), out);
            break;
        case Kind::MatrixChunk:
            ok = describeMatrixChunk(bytes, out);
            break;
        case Kind::VectorFile:
            ok = describeVectorFile(bytes, out);
            break;
        case Kind::MatrixFile:
            ok = describeMatrixFile(bytes, out);
            break;
        case Kind::Unknown:
            out = path +
                  ": not a recognised file (expected a \"DCK\", \"MCK\", \"CSF\"/\"CSD\" or "
                  "\"COV\"/\"MOV\" file, or a text file named .cs, .cov or .mov)";
            return false;
    }
    if (!ok) {
        out = path + ": truncated or malformed, not " + expectedForm(kind) + " as it claims";
        return false;
    }
    out = path + "\n" + out;
    return true;
}

}  // namespace
}  // namespace msm

extern "C" int msmface_describeFile(const char* path, char* text, int capacity) {
    std::string out;
    const bool ok = path != nullptr ? msm::describe(path, out) : false;
    if (path == nullptr) out = "no file name given";
    if (text != nullptr && capacity > 0) {
        const std::size_t n = std::min(out.size(), static_cast<std::size_t>(capacity) - 1);
        std::memcpy(text, out.data(), n);
        text[n] = '\0';
    }
    const int length = static_cast<int>(std::min<std::size_t>(out.size(), 1 << 30));
    return ok ? length : -length - 1;
}
