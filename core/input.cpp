#include "core/input.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <string>

#include "core/status.h"
#include "dictionary/fixed_point.h"
#include "dictionary/rows.h"
#include "numeric/eigen_steps.h"
#include "recognition/MSMRecognition.h"
#include "recognition/person_value.h"

namespace msmface::core {

namespace {

constexpr std::size_t kRowAlign = 32;  // what the 16-bit kernels load

std::string shapeText(PatternShape s) {
    return std::to_string(s.channels) + " x " + std::to_string(s.dimension);
}

}  // namespace

Input::~Input() {
    msm::freeRows(basisCopy_);
    msm::freeRows(inputQ14_);
    msm::freeRows(projectedInput_);
}

Result<std::unique_ptr<Input>> Input::create(const Snapshot& snapshot,
                                             const InputOptions& options) {
    return create(snapshot.shape(), snapshot.basisCount(), options);
}

Result<std::unique_ptr<Input>> Input::create(PatternShape shape, int basisCount,
                                             const InputOptions& options) {
    if (Status k = checkBasisCount(basisCount); !k) return k;
    if (shape.channels < 1 || shape.channels > msm::kMaxChannels || shape.dimension < 1)
        return argumentFailure("pattern shape " + shapeText(shape) + ": expected 1.." +
                               std::to_string(msm::kMaxChannels) + " channels of at least 1 value");
    if (options.maxSegments < 1 || options.maxSegments > msm::kMaxInputSegments)
        return argumentFailure("frame buffer " + std::to_string(options.maxSegments) +
                               ": expected 1.." + std::to_string(msm::kMaxInputSegments));
    if (options.distNum < 1 || options.distNum > basisCount)
        return argumentFailure("canonical angles " + std::to_string(options.distNum) +
                               ": expected 1.." + std::to_string(basisCount));
    std::unique_ptr<Input> input(new (std::nothrow) Input);
    if (input == nullptr) return noMemory("an input");
    input->shape_ = shape;
    input->basisCount_ = basisCount;
    input->paddedLength_ = msm::q14RowLength(shape.dimension);
    input->distNum_ = options.distNum;
    try {
        if (!input->allocate(options)) return noMemory("an input of " + shapeText(shape));
    } catch (const std::bad_alloc&) {
        return noMemory("an input of " + shapeText(shape));
    }
    return input;
}

bool Input::allocate(const InputOptions& options) {
    const int C = shape_.channels, K = basisCount_;
    inputs_.reset(new (std::nothrow) InputSubspace[C]);
    if (inputs_ == nullptr) return false;
    for (int c = 0; c < C; ++c) {
        InputSubspace& in = inputs_[c];
        in.paddedDim = paddedLength_;
        in.maxSegments = options.maxSegments;
        in.updateWeight = options.updateWeight;
        in.frameCount = 0;
        if (in.Allocate(K, shape_.dimension) != 1) return false;
    }
    patterns_.assign(static_cast<std::size_t>(C) * shape_.dimension, 0.0f);
    solved_ = options.solvedBasis;
    maxSegments_ = options.maxSegments;
    if (solved_) {
        const std::size_t n = static_cast<std::size_t>(maxSegments_);
        recent_.assign(n * patterns_.size(), 0.0f);
        gramValues_.assign(n * n, 0.0);
        gramRows_.resize(n);
    }
    basisCopy_ = msm::allocateRows<float>(C * K, shape_.dimension);
    inputQ14_ = msm::allocateRows<short>(C * K, paddedLength_, kRowAlign);
    gram_.assign(static_cast<std::size_t>(msm::gramEntries(K)), 0);
    work_.K = K;
    work_.gram = gram_.data();
    pendingPersons_.resize(msm::kPersonsPerBatch);
    return basisCopy_ != nullptr && inputQ14_ != nullptr && reserveSpaces(0) &&
           lists_.Reset(msm::kMinRankingLength) == 1;
}

bool Input::reserveSpaces(int spaces) {
    const int C = shape_.channels, K = basisCount_;
    if (spaces > projectedSpaces_) {
        msm::freeRows(projectedInput_);
        projectedSpaces_ = 0;
        projectedInput_ = msm::allocateRows<short>(spaces * C * K, paddedLength_, kRowAlign);
        if (projectedInput_ == nullptr) return false;
        projectedSpaces_ = spaces;
    }
    const int slots = msm::kPersonsPerBatch * std::max(spaces, 1) * C;
    if (pendingSlots_.size() < static_cast<std::size_t>(slots)) pendingSlots_.resize(slots);
    return batch_.Reserve(K, slots);
}

void Input::update(const float* const* patterns) {
    const int C = shape_.channels, D = shape_.dimension;
    for (int c = 0; c < C; ++c) {
        if (!solved_) inputs_[c].Update(patterns[c]);
        std::copy(patterns[c], patterns[c] + D,
                  patterns_.begin() + static_cast<std::ptrdiff_t>(c) * D);
    }
    if (solved_) {
        std::copy(patterns_.begin(), patterns_.end(),
                  recent_.begin() + static_cast<std::ptrdiff_t>(recentNext_) *
                                        static_cast<std::ptrdiff_t>(patterns_.size()));
        recentNext_ = (recentNext_ + 1) % maxSegments_;
        recentCount_ = std::min(recentCount_ + 1, maxSegments_);
    }
    hasPatterns_ = true;
}

void Input::refresh() {
    for (int c = 0; c < shape_.channels; ++c) inputs_[c].Refresh();
    recentCount_ = recentNext_ = 0;
}

void Input::prepareRows() {
    const int K = basisCount_;
    for (int c = 0; c < shape_.channels; ++c) {
        if (solved_)
            solveBasis(c);
        else
            msm::inputBasisRows(inputs_[c], K, shape_.dimension, basisCopy_ + c * K,
                                inputQ14_ + c * K, paddedLength_);
    }
}

void Input::solveBasis(int c) {
    const int K = basisCount_, D = shape_.dimension, n = recentCount_;
    const std::size_t frame = patterns_.size();
    const auto x = [&](int k) {
        return recent_.data() + static_cast<std::size_t>(k) * frame +
               static_cast<std::size_t>(c) * D;
    };
    // The n patterns span at most n directions: the eigenvectors of their n x n Gram matrix give
    // those of the D x D autocorrelation (u = X^T v / sqrt(lambda)) at a fraction of the work.
    for (int i = 0; i < n; ++i) {
        gramRows_[i] = gramValues_.data() + static_cast<std::size_t>(i) * n;
        for (int j = 0; j <= i; ++j) {
            double dot = 0.0;
            const float *a = x(i), *b = x(j);
            for (int k = 0; k < D; ++k) dot += static_cast<double>(a[k]) * b[k];
            gramRows_[i][j] = dot;
        }
    }
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) gramRows_[i][j] = gramRows_[j][i];
    std::vector<double> values(static_cast<std::size_t>(n)), off(static_cast<std::size_t>(n));
    bool solved = n > 0;
    if (n > 1) {
        msm::tridiagonalize(n, gramRows_.data(), values.data(), off.data());
        solved = msm::qlImplicit(n, values.data(), off.data(), gramRows_.data()) == 0;
        if (solved) msm::sortDescending(n, values.data(), gramRows_.data());
    } else if (n == 1) {
        values[0] = gramRows_[0][0];
        gramRows_[0][0] = 1.0;
    }
    // Directions the patterns do not reach (fewer patterns than vectors, or repeated ones) stay
    // zero rows: they add nothing to a similarity.
    const double floor = solved ? values[0] * 1e-9 : 0.0;
    std::vector<double> u(static_cast<std::size_t>(D));
    for (int i = 0; i < K; ++i) {
        float* out = basisCopy_[c * K + i];
        std::fill(out, out + D, 0.0f);
        if (solved && i < n && values[i] > floor && values[i] > 0.0) {
            std::fill(u.begin(), u.end(), 0.0);
            for (int k = 0; k < n; ++k) {
                const double w = gramRows_[i][k];
                const float* p = x(k);
                for (int l = 0; l < D; ++l) u[l] += w * p[l];
            }
            double length = 0.0;
            for (double v : u) length += v * v;
            length = std::sqrt(length);
            if (length > 0.0)
                for (int l = 0; l < D; ++l) out[l] = static_cast<float>(u[l] / length);
        }
        short* q = inputQ14_[c * K + i];
        for (int l = 0; l < D; ++l) q[l] = msm::toQ14(out[l]);
        for (int l = D; l < paddedLength_; ++l) q[l] = 0;
    }
}

void Input::scoreSinglePattern(const Snapshot& snapshot, msm::RankingPass& pass) {
    const int C = shape_.channels, D = shape_.dimension;
    for (int p = 0; p < snapshot.personCount(); ++p) {
        msm::PatternScoreMean mean;
        for (int c = 0; c < C; ++c) {
            const int rows = snapshot.patternRowCount(p, c);
            mean.Add(rows < 0 ? 0
                              : MSMRecognition::SinglePatternScore(
                                    D, snapshot.patternRows(p, c), rows,
                                    patterns_.data() + static_cast<std::ptrdiff_t>(c) * D));
        }
        const int32_t score = mean.Score(C);
        pass.Offer(p, score, score, mean.Last());
    }
}

void Input::scoreSubspaces(const Snapshot& snapshot, msm::RankingPass& pass) {
    const int C = shape_.channels;
    int pending = 0;
    // Persons are solved in batches of the legacy recogniser's size, in the same order.
    auto flush = [&] {
        msm::offerSubspaceBatch(batch_, pendingPersons_.data(), pendingSlots_.data(), pending, C,
                                distNum_, pass);
        batch_.Clear();
        pending = 0;
    };
    batch_.Clear();
    for (int p = 0; p < snapshot.personCount(); ++p) {
        if (pending == msm::kPersonsPerBatch) flush();
        int* slots = pendingSlots_.data() + pending * C;
        for (int c = 0; c < C; ++c) {
            slots[c] = -1;
            const int rows = snapshot.rowCount(p, c);
            if (rows < 0) continue;
            float* x = batch_.Add(&slots[c]);
            if (x == nullptr)
                slots[c] = -1;
            else
                msm::formSimilarityMatrix(snapshot.rows(p, c), rows, inputRows(c), paddedLength_,
                                          work_, x);
        }
        pendingPersons_[pending++] = p;
    }
    flush();
}

void Input::scoreInSpaces(const Snapshot& snapshot, int spaces, msm::RankingPass& pass) {
    const int C = shape_.channels, K = basisCount_;
    for (int s = 0; s < spaces; ++s)
        for (int c = 0; c < C; ++c)
            msm::projectIntoSpace(snapshot.spaceChannel(s, c), basisCopy_ + c * K, K, K,
                                  shape_.dimension, projectedInputRows(s, c), paddedLength_,
                                  projectionWork_);
    int pending = 0;
    auto flush = [&] {
        msm::offerSpacesBatch(batch_, pendingPersons_.data(), pendingSlots_.data(), pending, spaces,
                              C, distNum_, pass);
        batch_.Clear();
        pending = 0;
    };
    batch_.Clear();
    for (int p = 0; p < snapshot.personCount(); ++p) {
        if (pending == msm::kPersonsPerBatch) flush();
        int* slots = pendingSlots_.data() + pending * spaces * C;
        for (int s = 0; s < spaces; ++s) {
            for (int c = 0; c < C; ++c) {
                int& slot = slots[s * C + c];
                float* x = batch_.Add(&slot);
                if (x == nullptr) {
                    slot = -1;
                    continue;
                }
                msm::formSimilarityMatrix(snapshot.projectedRows(s, p, c), K,
                                          projectedInputRows(s, c), paddedLength_, work_, x);
            }
        }
        pendingPersons_[pending++] = p;
    }
    flush();
}

void Input::finish(int persons) {
    ranking_.clear();
    for (int i = 0; i < persons && i < lists_.length; ++i)
        ranking_.push_back({lists_.candidates[i].id, lists_.candidates[i].similarity});
}

Status score(const Snapshot& snapshot, Input& input, Method method) {
    const PatternShape a = snapshot.shape(), b = input.shape();
    if (a.dimension != b.dimension || a.channels != b.channels)
        return argumentFailure("input of patterns " + shapeText(b) + ": the gallery holds " +
                               shapeText(a));
    if (snapshot.basisCount() != input.basisCount())
        return argumentFailure("input of " + std::to_string(input.basisCount()) +
                               " basis vectors: the gallery holds " +
                               std::to_string(snapshot.basisCount()));
    int spaces = 0;
    if (method == Method::Cmsm || method == Method::CmsmAllSpaces) {
        if (snapshot.spaceCount() == 0)
            return argumentFailure("constraint-space method: the gallery has no constraint space");
        spaces = method == Method::Cmsm ? 1 : snapshot.spaceCount();
    }
    if (method == Method::SinglePattern && !snapshot.hasPatternRows())
        return argumentFailure("single-pattern method: the gallery was built without its vectors");
    if (method == Method::SinglePattern && !input.hasPatterns_)
        return argumentFailure("single-pattern method: the input has no frame yet");
    const int persons = snapshot.personCount();
    try {
        if (!input.reserveSpaces(spaces)) return noMemory("scoring an input");
        msm::RankingStyle style;
        if (method == Method::SinglePattern) {
            style.topThreeScale = 1.0;
            style.allPersonsCopy = 0;
        } else if (spaces > 0) {
            style.topThreeTestsLastChannel = false;
        }
        // Every person ranked: the legacy engine's list of all persons, equal scores in person
        // order.
        constexpr int kAllPersons = 2;
        msm::RankingPass pass(input.lists_, kAllPersons, persons, style);
        if (input.lists_.length < persons) return noMemory("a ranking of all persons");
        input.prepareRows();
        switch (method) {
            case Method::SinglePattern:
                input.scoreSinglePattern(snapshot, pass);
                break;
            case Method::Msm:
                input.scoreSubspaces(snapshot, pass);
                break;
            case Method::Cmsm:
            case Method::CmsmAllSpaces:
                input.scoreInSpaces(snapshot, spaces, pass);
                break;
        }
        pass.Finish();
        input.finish(persons);
    } catch (const std::bad_alloc&) {
        return noMemory("scoring an input");
    }
    return {};
}

}  // namespace msmface::core
