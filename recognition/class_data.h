// The class data of a constraint space and the files made from it. Per channel, the projection
// matrices of the persons' dictionary subspaces are summed into one symmetric 256 x 256 matrix;
// its eigenvectors (".dck"), eigenvalues (".dckev", one-value vectors) and the sums themselves
// with the number of persons they cover (".mck") are what a constraint space is loaded from.
#ifndef MSMFACE_RECOGNITION_CLASS_DATA_H
#define MSMFACE_RECOGNITION_CLASS_DATA_H

#include <string>
#include <vector>

#include <msmface/result.h>

#include "dictionary/DictChunk.h"

namespace msm {

constexpr int kClassDataDim = 256;
// Leading dictionary vectors of each person that enter the sums.
constexpr int kGenerationBasisCount = 30;

// A store: channels matrices of dimension x dimension floats (the engine's patterns: 256; a
// directory of descriptors: their size). Only sets of vectors of that dimension enter it.
struct ClassStore {
    float** const* matrices;
    int channels;
    int dimension = kClassDataDim;
};

// matrices[c] += sum_{k<B} phi_k phi_kᵀ (full square, each element summed over k in float before
// it is added) for every channel of the set, phi_k the float rows of the set's channel-c
// primitive. A primitive with fewer than B vectors contributes the ones it has; one that is not
// a float set of dimension 256, or a channel beyond the store, is left out.
void addClassData(const DictChunk& set, int B, const ClassStore& store);
// The same subtracted: adding and then removing one set restores the store up to rounding.
void removeClassData(const DictChunk& set, int B, const ClassStore& store);

// Diagonalises every channel's matrix and writes stem.dck (all 256 eigenvectors per channel,
// descending), evStem.dckev (when evStem is given) and stem.mck (classCount and the sums). With
// evStem the eigenvalue file's write decides whether the rest is written; without, a class count
// of 0 writes nothing. Returns the ".mck" write's result, or 0 when nothing was written.
int recomputeAndWrite(const ClassStore& store, int classCount, const char* stem,
                      const char* evStem);

// Reads a person's dictionary set from path: with sourceKind 1 the autocorrelation records of a
// ".mck" file, expanded channel by channel until one fails; otherwise a ".dck" file as float
// rows. Returns 1 when the file was read (out then holds the channels expanded so far), else 0.
int readClassSet(const char* path, int sourceKind, DictChunk& out);

// Rebuilds the store channel by channel from n persons' files (paths, each a ".mck" for
// sourceKind 1, else a ".dck", read again for every channel): a person adds its first B vectors
// of the channel when it has at least B and its first vector is not shorter than 1e-7;
// unreadable files and smaller dictionaries are skipped. The new sums go into the upper triangle
// of the store (the lower keeps what it held: every reader mirrors the upper one). Then writes
// as recomputeAndWrite with class count n, the eigenvalue file only when evStem is given, a
// failed eigenvalue write ending the operation with 0 before anything else is written. Returns
// the ".mck" write's result.
int rebuildFromFiles(int n, const char* const* paths, int B, const char* stem, const char* evStem,
                     const ClassStore& store, int sourceKind);

// The generation from scratch: empties the store, then rebuilds it and writes the space as
// rebuildFromFiles does, with stem as the eigenvalue file's stem as well.
int regenerateFromFiles(int n, const char* const* paths, int B, const char* stem,
                        const ClassStore& store, int sourceKind);

// A constraint space of `channels` channels generated from scratch for the persons' files (in
// person order, as regenerateFromFiles takes them) and written under stem, with a store of its own
// that is released on return: the same files the legacy engine writes for the same persons.
// Fails (File) naming the file that was not written, or (Internal) when memory runs out.
// dimension and basisCount: the persons' vector length and the leading vectors each adds.
msmface::Status generateConstraintSpace(const std::vector<std::string>& personFiles, int sourceKind,
                                        int channels, const std::string& stem,
                                        int dimension = kClassDataDim,
                                        int basisCount = kGenerationBasisCount);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_CLASS_DATA_H
