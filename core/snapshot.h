// The recognition core's gallery: one immutable snapshot of the persons' dictionary subspaces,
// laid out for the similarity kernels (and projected into the constraint spaces when there are
// any), built once and shared by every input that scores against it.
//
// Threads. A built snapshot is never changed: any number of threads may read it at once.
#ifndef MSMFACE_CORE_SNAPSHOT_H
#define MSMFACE_CORE_SNAPSHOT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <msmface/result.h>

#include "recognition/projection.h"

class DictChunk;
struct ConstraintSpace;

namespace msmface::core {

// The kind of pattern a gallery holds: `channels` patterns of `dimension` values per frame.
struct PatternShape {
    int dimension = 0;
    int channels = 0;
};

// What a snapshot holds besides the persons' Q14 rows.
struct SnapshotOptions {
    int basisCount = 7;       // vectors compared per subspace (3..20)
    bool patternRows = true;  // the float vectors of the single-pattern method
};

class Snapshot {
  public:
    // persons: each person's dictionary (one float set per channel, as a ".dck" reads), in person
    // order (a null entry is a person without dictionary); spaces: the constraint spaces
    // the constraint-space methods project into, in list order (none: those methods refuse).
    // Fails with one line naming the argument when the shape, basis count or a space does not
    // fit, or when memory runs out. A person's channel that is not a set of `dimension`-value
    // vectors is kept as "no dictionary" (its similarity is 0), as the legacy engine scores it.
    static Result<std::shared_ptr<const Snapshot>> build(
        PatternShape shape, const SnapshotOptions& options,
        const std::vector<const DictChunk*>& persons,
        const std::vector<const ConstraintSpace*>& spaces = {});

    // A person of a built snapshot.
    struct PersonSource {
        const Snapshot* snapshot = nullptr;
        int person = 0;
    };
    // A snapshot of persons taken from built snapshots, in the given order, their rows copied as
    // they are: a gallery that gains or loses a person reads no other person's dictionary again.
    // Every source must have been built with the shape, basis count, pattern-row option and
    // constraint spaces of `like`, whose spaces the new snapshot takes. Fails with one line
    // naming the source that does not fit, or when memory runs out.
    static Result<std::shared_ptr<const Snapshot>> combine(const std::vector<PersonSource>& persons,
                                                           const Snapshot& like);

    PatternShape shape() const { return shape_; }
    int basisCount() const { return basisCount_; }
    bool hasPatternRows() const { return hasPatternRows_; }
    int personCount() const { return personCount_; }
    int spaceCount() const { return static_cast<int>(spaceChannels_.size()); }
    // Values per Q14 row (the dimension rounded up to the kernels' block).
    int paddedLength() const { return paddedLength_; }
    // Bytes the snapshot holds (rows, pointers, constraint vectors).
    std::size_t bytes() const;

    // --- What scoring reads ------------------------------------------------------------------
    // Person p's channel c as Q14 rows (at most the basis count of them) and their number; -1
    // when the channel holds no dictionary.
    int rowCount(int p, int c) const { return rowCounts_[index(p, c)]; }
    short* const* rows(int p, int c) const { return rowPointers_.data() + rowStart_[index(p, c)]; }
    // The leading float vectors the single-pattern method compares with, and their number (-1:
    // no dictionary, or a snapshot built without them).
    int patternRowCount(int p, int c) const { return patternCounts_[index(p, c)]; }
    float* const* patternRows(int p, int c) const {
        return floatPointers_.data() + patternStart_[index(p, c)];
    }
    // Person p's channel c projected into space s: basis-count Q14 rows.
    short* const* projectedRows(int s, int p, int c) const {
        return rowPointers_.data() + projectedStart_ +
               ((static_cast<std::size_t>(s) * personCount_ + p) * shape_.channels + c) *
                   basisCount_;
    }
    // How space s projects channel c (its vectors live in this snapshot).
    const msm::SpaceChannel& spaceChannel(int s, int c) const { return spaceChannels_[s][c]; }

    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

  private:
    struct FreeBlock {
        void operator()(void* p) const;
    };
    using Block = std::unique_ptr<void, FreeBlock>;

    Snapshot() = default;
    std::size_t index(int p, int c) const {
        return static_cast<std::size_t>(p) * shape_.channels + c;
    }
    // Which channels hold rows and where they go; throws std::bad_alloc.
    void layOut(const std::vector<const DictChunk*>& persons);
    // The constraint vectors, and the blocks for every row; throws std::bad_alloc.
    Status copySpaces(const std::vector<const ConstraintSpace*>& spaces);
    // The blocks for every row, and the channels' vectors and eigenvalues copied into them;
    // throws std::bad_alloc.
    void allocateRows(std::vector<std::vector<msm::SpaceChannel>> channels);
    // Fills the rows: the persons' Q14 and float rows, and their projections.
    void project(const std::vector<const DictChunk*>& persons);

    PatternShape shape_;
    int basisCount_ = 0;
    bool hasPatternRows_ = false;
    int personCount_ = 0;
    int paddedLength_ = 0;
    Block q14_;    // every Q14 row: the persons' rows, then the projected rows
    Block float_;  // every float row: the single-pattern rows, then the constraint vectors
    std::size_t q14Bytes_ = 0, floatBytes_ = 0;
    std::vector<short*> rowPointers_;
    std::vector<float*> floatPointers_;
    std::vector<std::size_t> rowStart_, patternStart_;
    std::vector<int> rowCounts_, patternCounts_;
    std::size_t projectedStart_ = 0;
    std::size_t patternRowTotal_ = 0;
    std::vector<std::vector<msm::SpaceChannel>> spaceChannels_;  // per space, per channel
    std::vector<float> eigenvalues_;
};

}  // namespace msmface::core

#endif  // MSMFACE_CORE_SNAPSHOT_H
