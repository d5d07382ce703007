// The constraint spaces of a list read from their files into ConstraintSpace structs: the one
// loader of the legacy recogniser and of the recognition core, so that both project into exactly
// the same spaces and report the same load results.
//
// Threads. No locks: one thread at a time per set of spaces.
#ifndef MSMFACE_RECOGNITION_CONSTRAINT_SPACE_LOADER_H
#define MSMFACE_RECOGNITION_CONSTRAINT_SPACE_LOADER_H

#include <functional>
#include <memory>
#include <string>

#include "recognition/constraint_list.h"
#include "recognition/constraint_space.h"

namespace msm {

// The spaces a read list names, unloaded (eigenvalues zeroed for `channels` channels), in list
// order; *learned the index of the "CMSML" entry or -1. Null for a list of no entries, and when
// memory runs out (reportNoMemory has then been called).
std::unique_ptr<ConstraintSpace[]> unloadedSpaces(const ConstraintList& list, int channels,
                                                  int* learned);

// Reads a learned space's class-data file "stem.mck": 1 when it was read (and used), else 0.
using MatrixLoader = std::function<int(const std::string& stem)>;
// A matrix loader that only requires the file to read, for hosts that keep no class data.
int matrixReads(const std::string& stem);

// Loads space's files as its kind says and sets its loadStatus: 1 for "MSM"; for "CMSMF" 1, 0
// when a file does not read or does not fit, -1 when the basis holds fewer than 0.9 x its
// dimension vectors; for "CMSML" the codes of the first and second set of files (1..4 when a
// basis and its class data were read, -1..-5 and -9 for the ways that fails).
// dimension: the values of the vectors every channel must hold (the engine's patterns: 256).
int loadConstraintSpace(ConstraintSpace& space, int channels, const MatrixLoader& matrix,
                        int dimension = kPatternDim);

// Loads every space in order: the learned space's status (1 without one) when every space
// loaded, the failed "CMSMF" space's status - 10, or the failed learned space's status.
int loadConstraintSpaces(ConstraintSpace* spaces, int count, int channels,
                         const MatrixLoader& matrix, int dimension = kPatternDim);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_CONSTRAINT_SPACE_LOADER_H
