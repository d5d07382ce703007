#include "core/snapshot.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "core/status.h"
#include "data/initial_basis.h"
#include "dictionary/DictChunk.h"
#include "dictionary/fixed_point.h"
#include "dictionary/rows.h"
#include "recognition/MSMRecognition.h"
#include "recognition/constraint_space.h"

namespace msmface::core {

namespace {

constexpr std::size_t kRowAlign = 32;  // what the 16-bit kernels load

// Channel c of a dictionary when it is a set of D-value vectors (null otherwise).
const DicPrim* channelOf(const DictChunk* dictionary, int c, int D) {
    if (dictionary == nullptr || c >= dictionary->count || dictionary->prims == nullptr)
        return nullptr;
    const DicPrim& prim = dictionary->prims[c];
    return prim.dim == D ? &prim : nullptr;
}

int storedRows(const DicPrim& prim) {
    return std::max(std::min(prim.count, prim.allocatedRows), 0);
}

}  // namespace

void Snapshot::FreeBlock::operator()(void* p) const {
    std::free(p);
}

std::size_t Snapshot::bytes() const {
    return sizeof(Snapshot) + q14Bytes_ + floatBytes_ + rowPointers_.size() * sizeof(short*) +
           floatPointers_.size() * sizeof(float*) +
           (rowStart_.size() + patternStart_.size()) * sizeof(std::size_t) +
           (rowCounts_.size() + patternCounts_.size()) * sizeof(int) +
           eigenvalues_.size() * sizeof(float);
}

Result<std::shared_ptr<const Snapshot>> Snapshot::build(
    PatternShape shape, const SnapshotOptions& options,
    const std::vector<const DictChunk*>& persons,
    const std::vector<const ConstraintSpace*>& spaces) {
    const int K = options.basisCount;
    if (Status k = checkBasisCount(K); !k) return k;
    if (shape.channels < 1 || shape.channels > msm::kMaxChannels)
        return argumentFailure("pattern channels " + std::to_string(shape.channels) +
                               ": expected 1.." + std::to_string(msm::kMaxChannels));
    // An input starts from the stored initial basis: its vectors are read at a fixed stride, so
    // the table bounds the dimension the K vectors can have.
    const int maxDimension = msm::kInitialBasisValues - (K - 1) * msm::kInitialBasisStride;
    if (shape.dimension < 1 || shape.dimension > maxDimension)
        return argumentFailure("pattern dimension " + std::to_string(shape.dimension) +
                               ": expected 1.." + std::to_string(maxDimension) + " for " +
                               std::to_string(K) + " basis vectors");
    std::shared_ptr<Snapshot> s(new (std::nothrow) Snapshot);
    if (s == nullptr) return noMemory("a gallery snapshot");
    s->shape_ = shape;
    s->basisCount_ = K;
    s->hasPatternRows_ = options.patternRows;
    s->paddedLength_ = msm::q14RowLength(shape.dimension);
    s->personCount_ = static_cast<int>(persons.size());
    try {
        s->layOut(persons);
        if (Status copied = s->copySpaces(spaces); !copied) return copied;
    } catch (const std::bad_alloc&) {
        return noMemory("a gallery snapshot of " + std::to_string(persons.size()) + " persons");
    }
    s->project(persons);
    return std::shared_ptr<const Snapshot>(std::move(s));
}

void Snapshot::layOut(const std::vector<const DictChunk*>& persons) {
    const int C = shape_.channels, D = shape_.dimension, K = basisCount_;
    const std::size_t cells = static_cast<std::size_t>(personCount_) * C;
    rowCounts_.assign(cells, -1);
    patternCounts_.assign(cells, -1);
    rowStart_.assign(cells, 0);
    patternStart_.assign(cells, 0);
    std::size_t q14Rows = 0, floatRows = 0;
    for (int p = 0; p < personCount_; ++p) {
        for (int c = 0; c < C; ++c) {
            const DicPrim* prim = channelOf(persons[p], c, D);
            if (prim == nullptr) continue;
            // The Q14 rows exist for the layouts a dictionary is read in; the single-pattern
            // method reads the float rows themselves.
            const bool convertible = prim->qrows != nullptr || prim->mode == kDicPrimDouble ||
                                     prim->FloatRows() != nullptr;
            if (convertible) {
                rowCounts_[index(p, c)] = std::min(storedRows(*prim), K);
                rowStart_[index(p, c)] = q14Rows;
                q14Rows += rowCounts_[index(p, c)];
            }
            if (hasPatternRows_ && prim->FloatRows() != nullptr) {
                patternCounts_[index(p, c)] =
                    std::min(storedRows(*prim), msm::kSinglePatternVectors);
                patternStart_[index(p, c)] = floatRows;
                floatRows += patternCounts_[index(p, c)];
            }
        }
    }
    // The projected rows and the constraint vectors follow once the spaces are known.
    projectedStart_ = q14Rows;
    patternRowTotal_ = floatRows;
}

Status Snapshot::copySpaces(const std::vector<const ConstraintSpace*>& spaces) {
    const int C = shape_.channels, D = shape_.dimension;
    // Every space's channels and how many vectors each keeps.
    std::vector<std::vector<msm::SpaceChannel>> channels;
    for (std::size_t s = 0; s < spaces.size(); ++s) {
        if (spaces[s] == nullptr)
            return argumentFailure("constraint space " + std::to_string(s + 1) + ": none given");
        std::vector<msm::SpaceChannel> row;
        for (int c = 0; c < C; ++c) {
            msm::SpaceChannel ch = msm::spaceChannel(*spaces[s], c, D);
            if (ch.how == msm::SpaceChannel::How::Whitened &&
                spaces[s]->eigenvalues.size() <
                    static_cast<std::size_t>(ch.lambda - spaces[s]->eigenvalues.data()) + ch.m)
                return argumentFailure("constraint space " + std::to_string(s + 1) + ": channel " +
                                       std::to_string(c + 1) + " has " + std::to_string(ch.m) +
                                       " vectors but fewer eigenvalues");
            row.push_back(ch);
        }
        channels.push_back(std::move(row));
    }
    allocateRows(std::move(channels));
    return {};
}

void Snapshot::allocateRows(std::vector<std::vector<msm::SpaceChannel>> channels) {
    const int C = shape_.channels, D = shape_.dimension, K = basisCount_;
    std::size_t vectors = 0;
    for (const auto& row : channels)
        for (const msm::SpaceChannel& ch : row)
            if (ch.how == msm::SpaceChannel::How::Whitened) vectors += ch.m;
    // One Q14 block: the persons' rows, then K projected rows per space, person and channel.
    const std::size_t cells = static_cast<std::size_t>(personCount_) * C;
    const std::size_t q14Rows = projectedStart_ + channels.size() * cells * K;
    const std::size_t patternRows = patternRowTotal_;
    const std::size_t floatRows = patternRows + vectors;
    q14Bytes_ = q14Rows * paddedLength_ * sizeof(short);
    floatBytes_ = floatRows * D * sizeof(float);
    q14_.reset(q14Bytes_ > 0 ? msm::allocateBlock(q14Bytes_, kRowAlign) : nullptr);
    float_.reset(floatBytes_ > 0 ? msm::allocateBlock(floatBytes_, kRowAlign) : nullptr);
    if ((q14Bytes_ > 0 && q14_ == nullptr) || (floatBytes_ > 0 && float_ == nullptr))
        throw std::bad_alloc();
    if (q14Bytes_ > 0) std::memset(q14_.get(), 0, q14Bytes_);
    rowPointers_.resize(q14Rows);
    floatPointers_.resize(floatRows);
    auto* q = static_cast<short*>(q14_.get());
    for (std::size_t r = 0; r < q14Rows; ++r) rowPointers_[r] = q + r * paddedLength_;
    auto* f = static_cast<float*>(float_.get());
    for (std::size_t r = 0; r < floatRows; ++r) floatPointers_[r] = f + r * D;
    // The constraint vectors and eigenvalues move into the snapshot: it outlives the spaces.
    eigenvalues_.reserve(vectors);
    std::size_t next = patternRows;
    for (auto& row : channels) {
        for (msm::SpaceChannel& ch : row) {
            if (ch.how != msm::SpaceChannel::How::Whitened) continue;
            const std::size_t first = next;
            for (int i = 0; i < ch.m; ++i, ++next)
                std::memcpy(floatPointers_[next], ch.psi[i], D * sizeof(float));
            const std::size_t lambdaAt = eigenvalues_.size();
            eigenvalues_.insert(eigenvalues_.end(), ch.lambda, ch.lambda + ch.m);
            ch.psi = floatPointers_.data() + first;
            ch.lambda = eigenvalues_.data() + lambdaAt;
        }
    }
    spaceChannels_ = std::move(channels);
}

Result<std::shared_ptr<const Snapshot>> Snapshot::combine(const std::vector<PersonSource>& persons,
                                                          const Snapshot& like) {
    for (std::size_t i = 0; i < persons.size(); ++i) {
        const Snapshot* from = persons[i].snapshot;
        const std::string source = "person source " + std::to_string(i + 1);
        if (from == nullptr) return argumentFailure(source + ": no snapshot given");
        if (persons[i].person < 0 || persons[i].person >= from->personCount_)
            return argumentFailure(source + ": person " + std::to_string(persons[i].person) +
                                   " of a snapshot of " + std::to_string(from->personCount_));
        if (from->shape_.dimension != like.shape_.dimension ||
            from->shape_.channels != like.shape_.channels ||
            from->basisCount_ != like.basisCount_ ||
            from->hasPatternRows_ != like.hasPatternRows_ ||
            from->spaceCount() != like.spaceCount())
            return argumentFailure(source + ": built for other patterns, basis count or spaces");
    }
    std::shared_ptr<Snapshot> s(new (std::nothrow) Snapshot);
    if (s == nullptr) return noMemory("a gallery snapshot");
    s->shape_ = like.shape_;
    s->basisCount_ = like.basisCount_;
    s->hasPatternRows_ = like.hasPatternRows_;
    s->paddedLength_ = like.paddedLength_;
    s->personCount_ = static_cast<int>(persons.size());
    const int C = s->shape_.channels, D = s->shape_.dimension, K = s->basisCount_;
    try {
        const std::size_t cells = persons.size() * C;
        s->rowCounts_.assign(cells, -1);
        s->patternCounts_.assign(cells, -1);
        s->rowStart_.assign(cells, 0);
        s->patternStart_.assign(cells, 0);
        std::size_t q14Rows = 0, floatRows = 0;
        for (int p = 0; p < s->personCount_; ++p) {
            const Snapshot& from = *persons[p].snapshot;
            const int q = persons[p].person;
            for (int c = 0; c < C; ++c) {
                const std::size_t at = s->index(p, c);
                s->rowCounts_[at] = from.rowCount(q, c);
                s->patternCounts_[at] = from.patternRowCount(q, c);
                s->rowStart_[at] = q14Rows;
                s->patternStart_[at] = floatRows;
                q14Rows += std::max(s->rowCounts_[at], 0);
                floatRows += std::max(s->patternCounts_[at], 0);
            }
        }
        s->projectedStart_ = q14Rows;
        s->patternRowTotal_ = floatRows;
        s->allocateRows(like.spaceChannels_);
    } catch (const std::bad_alloc&) {
        return noMemory("a gallery snapshot of " + std::to_string(persons.size()) + " persons");
    }
    const std::size_t q14Row = s->paddedLength_ * sizeof(short), floatRow = D * sizeof(float);
    for (int p = 0; p < s->personCount_; ++p) {
        const Snapshot& from = *persons[p].snapshot;
        const int q = persons[p].person;
        for (int c = 0; c < C; ++c) {
            const std::size_t at = s->index(p, c);
            short* const* rows = s->rowPointers_.data() + s->rowStart_[at];
            for (int i = 0; i < s->rowCounts_[at]; ++i)
                std::memcpy(rows[i], from.rows(q, c)[i], q14Row);
            float* const* patterns = s->floatPointers_.data() + s->patternStart_[at];
            for (int i = 0; i < s->patternCounts_[at]; ++i)
                std::memcpy(patterns[i], from.patternRows(q, c)[i], floatRow);
            for (int sp = 0; sp < s->spaceCount(); ++sp)
                for (int i = 0; i < K; ++i)
                    std::memcpy(s->projectedRows(sp, p, c)[i], from.projectedRows(sp, q, c)[i],
                                q14Row);
        }
    }
    return std::shared_ptr<const Snapshot>(std::move(s));
}

void Snapshot::project(const std::vector<const DictChunk*>& persons) {
    const int C = shape_.channels, D = shape_.dimension, K = basisCount_;
    for (int p = 0; p < personCount_; ++p) {
        for (int c = 0; c < C; ++c) {
            const DicPrim* prim = channelOf(persons[p], c, D);
            if (prim == nullptr) continue;
            const int n = rowCounts_[index(p, c)];
            if (n >= 0) {
                short* const* out = rowPointers_.data() + rowStart_[index(p, c)];
                if (prim->qrows != nullptr) {
                    if (prim->qLength < paddedLength_) rowCounts_[index(p, c)] = -1;
                    for (int i = 0; i < n && prim->qLength >= paddedLength_; ++i)
                        std::memcpy(out[i], prim->qrows[i], paddedLength_ * sizeof(short));
                } else {
                    // A dictionary read elsewhere gets its Q14 rows as the database makes them.
                    DicPrim copy;
                    if (copy.CopyFrom(*prim) == 1 && copy.PrepareQ14Rows() == 1)
                        for (int i = 0; i < n; ++i)
                            std::memcpy(out[i], copy.qrows[i], paddedLength_ * sizeof(short));
                    else
                        rowCounts_[index(p, c)] = -1;
                }
            }
            const int m = patternCounts_[index(p, c)];
            for (int i = 0; i < m; ++i)
                std::memcpy(floatPointers_[patternStart_[index(p, c)] + i], prim->FloatRows()[i],
                            D * sizeof(float));
        }
    }
    msm::ProjectionWork work;
    for (int s = 0; s < spaceCount(); ++s) {
        for (int p = 0; p < personCount_; ++p) {
            for (int c = 0; c < C; ++c) {
                const DicPrim* prim = channelOf(persons[p], c, D);
                float* const* rows = prim != nullptr ? prim->FloatRows() : nullptr;
                if (rows == nullptr) continue;  // projected onto nothing: zero rows
                msm::projectIntoSpace(spaceChannels_[s][c], rows, storedRows(*prim), K, D,
                                      projectedRows(s, p, c), paddedLength_, work);
            }
        }
    }
}

}  // namespace msmface::core
