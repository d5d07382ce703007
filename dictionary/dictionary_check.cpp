#include "dictionary/dictionary_check.h"

#include <cmath>
#include <cstdint>
#include <vector>

#include "dictionary/DictChunk.h"
#include "io/byte_reader.h"

namespace msm {
namespace {

constexpr std::size_t kHeaderBytes = 7;         // "DCK", set count
constexpr std::size_t kRecordHeaderBytes = 16;  // size field, mode, vector count, dimension

std::size_t largestFile(const DictionaryShape& shape) {
    const std::size_t record = kRecordHeaderBytes + sizeof(float) *
                                                        static_cast<std::size_t>(shape.maxVectors) *
                                                        static_cast<std::size_t>(shape.dimension);
    return kHeaderBytes + static_cast<std::size_t>(shape.sets) * record;
}

// In eight float lanes that the compiler keeps in vector registers: a load checks some hundred
// thousand pairs, and float's error over 256 products stays far below the tolerance.
double Dot(const float* a, const float* b, int n) {
    float lanes[8] = {};
    int k = 0;
    for (; k + 8 <= n; k += 8)
        for (int l = 0; l < 8; ++l) lanes[l] += a[k + l] * b[k + l];
    double sum = 0.0;
    for (float lane : lanes) sum += lane;
    for (; k < n; ++k) sum += static_cast<double>(a[k]) * b[k];
    return sum;
}

// In double: a huge value's square must not overflow into "inf" in the message.
double SquaredLength(const float* a, int n) {
    double sum = 0.0;
    for (int k = 0; k < n; ++k) sum += static_cast<double>(a[k]) * a[k];
    return sum;
}

// Empty, or what set s of the chunk does not satisfy.
std::string checkSet(const DicPrim& p, int s, const DictionaryShape& shape) {
    const std::string set = "set " + std::to_string(s + 1);
    if (p.dim != shape.dimension)
        return set + " has vectors of " + std::to_string(p.dim) + " values, expected " +
               std::to_string(shape.dimension);
    if (p.count < 1 || p.count > shape.maxVectors)
        return set + " has " + std::to_string(p.count) + " vectors, expected 1 to " +
               std::to_string(shape.maxVectors);
    for (int i = 0; i < p.count; ++i)
        for (int k = 0; k < p.dim; ++k)
            if (!std::isfinite(p.frows[i][k]))
                return set + ", vector " + std::to_string(i + 1) + " holds a value that is " +
                       (std::isnan(p.frows[i][k]) ? "not a number" : "infinite");
    if (!shape.orthonormal) return {};
    const int paired = shape.orthogonalVectors > 0 ? shape.orthogonalVectors : p.count;
    for (int i = 0; i < p.count; ++i) {
        for (int j = i < paired ? 0 : i; j <= i; ++j) {
            const double dot =
                i == j ? SquaredLength(p.frows[i], p.dim) : Dot(p.frows[i], p.frows[j], p.dim);
            const double off = i == j ? std::fabs(std::sqrt(dot) - 1.0) : std::fabs(dot);
            if (off <= kOrthonormalTolerance) continue;
            char value[32];
            std::snprintf(value, sizeof value, "%.4g", i == j ? std::sqrt(dot) : dot);
            return i == j ? set + ", vector " + std::to_string(i + 1) + " has length " + value +
                                ", expected 1"
                          : set + ", vectors " + std::to_string(j + 1) + " and " +
                                std::to_string(i + 1) + " have the dot product " + value +
                                ", expected 0 (orthonormal vectors)";
        }
    }
    return {};
}

}  // namespace

DictionaryShape personDictionaryShape() {
    DictionaryShape shape;
    shape.orthogonalVectors = kRecognisedVectors;
    return shape;
}

DictionaryShape constraintBasisShape() {
    return DictionaryShape{};
}

DictionaryShape constraintValuesShape() {
    DictionaryShape shape;
    shape.dimension = 1;
    shape.orthonormal = false;
    return shape;
}

DictionaryShape personDictionaryShape(int channels, int dimension) {
    DictionaryShape shape = personDictionaryShape();
    shape.sets = channels;
    shape.dimension = dimension;
    return shape;
}

DictionaryShape constraintBasisShape(int channels, int dimension) {
    DictionaryShape shape = constraintBasisShape();
    shape.sets = channels;
    shape.dimension = dimension;
    return shape;
}

DictionaryShape constraintValuesShape(int channels) {
    DictionaryShape shape = constraintValuesShape();
    shape.sets = channels;
    return shape;
}

namespace {

// Empty, or what the file's bytes (read whole) do not satisfy.
std::string checkBytes(const std::string& path, const std::vector<unsigned char>& bytes,
                       const DictionaryShape& shape) {
    DictChunk chunk;
    chunk.SetModeAndLimit(kDicPrimFloat, 0);
    if (chunk.ReadBytes(bytes.data(), bytes.size(), 1, 0, 0) != 1)
        return path + ": truncated or malformed, not a dictionary chunk";
    std::size_t used = kHeaderBytes;
    for (int s = 0; s < chunk.count; ++s)
        used += kRecordHeaderBytes + sizeof(float) *
                                         static_cast<std::size_t>(chunk.prims[s].count) *
                                         static_cast<std::size_t>(chunk.prims[s].dim);
    if (used != bytes.size())
        return path + ": " + std::to_string(bytes.size()) + " bytes, longer than the " +
               std::to_string(used) + " its records take";
    if (chunk.count != shape.sets)
        return path + ": " + std::to_string(chunk.count) + " sets, expected " +
               std::to_string(shape.sets);
    for (int s = 0; s < chunk.count; ++s) {
        if (chunk.nanFlags[s] != 0)
            return path + ": set " + std::to_string(s + 1) + " holds a value that is not a number";
        const std::string problem = checkSet(chunk.prims[s], s, shape);
        if (!problem.empty()) return path + ": " + problem;
    }
    return {};
}

// The file's bytes, or the reason they cannot be read.
std::string readDictionaryBytes(const std::string& path, const DictionaryShape& shape,
                                std::vector<unsigned char>& bytes) {
    std::string why;
    // A file longer than any dictionary of this shape is refused by its size alone: a valid file
    // padded to a gigabyte would otherwise be read whole on every load.
    if (!readWholeFile(path.c_str(), bytes, &why, largestFile(shape)))
        return path + ": cannot be read (" + why + ")";
    return {};
}

}  // namespace

std::string checkDictionaryFile(const std::string& path, const DictionaryShape& shape) {
    std::vector<unsigned char> bytes;
    std::string problem = readDictionaryBytes(path, shape, bytes);
    return problem.empty() ? checkBytes(path, bytes, shape) : problem;
}

std::string loadDictionaryFile(const std::string& path, const DictionaryShape& shape,
                               int keptVectors, DictChunk& out) {
    out.Release();
    std::vector<unsigned char> bytes;
    std::string problem = readDictionaryBytes(path, shape, bytes);
    if (problem.empty()) problem = checkBytes(path, bytes, shape);
    if (!problem.empty()) return problem;
    // The checked bytes parsed again, as a recogniser keeps them: no second read of the file.
    out.SetModeAndLimit(kDicPrimFloat, keptVectors);
    bool ok = out.ReadBytes(bytes.data(), bytes.size(), 1, 0, 0) == 1;
    for (int c = 0; ok && c < out.count; ++c) ok = out.prims[c].PrepareQ14Rows() == 1;
    if (ok) return {};
    out.Release();
    return path + ": out of memory for its " + std::to_string(shape.sets) + " sets";
}

}  // namespace msm
