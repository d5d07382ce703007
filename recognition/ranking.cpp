#include "recognition/ranking.h"

#include <algorithm>
#include <cstdlib>

#include "dictionary/rows.h"
#include "recognition/subspace_similarity.h"

namespace msm {

namespace {

constexpr int32_t kUnusedScore = -999;

}  // namespace

ResultLists::~ResultLists() {
    Release();
}

void ResultLists::Release() {
    std::free(candidates);
    std::free(scores);
    std::free(indices);
    candidates = nullptr;
    scores = nullptr;
    indices = nullptr;
    length = 0;
}

int ResultLists::Reset(int n) {
    Release();
    if (n < 1) return 1;
    auto count = static_cast<std::size_t>(n);
    candidates = static_cast<RECOGRESULT*>(std::malloc(count * sizeof(RECOGRESULT)));
    scores = static_cast<int32_t*>(std::malloc(count * sizeof(int32_t)));
    indices = static_cast<int32_t*>(std::malloc(count * sizeof(int32_t)));
    if (candidates == nullptr || scores == nullptr || indices == nullptr) {
        reportNoMemory();
        Release();
        return 0;
    }
    length = n;
    for (int i = 0; i < n; ++i) {
        candidates[i] = {0, kUnusedScore};
        scores[i] = kUnusedScore;
        indices[i] = 0;
    }
    return 1;
}

RankingPass::RankingPass(ResultLists& lists, int mode, int personCount, const RankingStyle& style)
    : lists_(lists), style_(style), personCount_(std::max(personCount, 0)) {
    kind_ = mode == 1 ? Kind::Ranked : mode == 2 ? Kind::AllPersons : Kind::TopThree;
    if (kind_ == Kind::Ranked) {
        for (int i = 0; i < lists_.length; ++i) {
            lists_.candidates[i] = {-1, -i};
            lists_.scores[i] = -i;
            lists_.indices[i] = -1;
        }
    } else if (kind_ == Kind::AllPersons) {
        int length = std::max(personCount_, kMinRankingLength);
        if (length != lists_.length) lists_.Reset(length);
        for (int i = 0; i < lists_.length; ++i) lists_.candidates[i] = {0, kUnusedScore};
    }
}

void RankingPass::Offer(int person, int32_t score, double value, double lastChannel) {
    switch (kind_) {
        case Kind::Ranked: {
            const int length = lists_.length;
            // After all equal scores: of equal scores the earlier person ranks first.
            int pos = 0;
            while (pos < filled_ && lists_.candidates[pos].similarity >= score) ++pos;
            if (pos >= length) return;
            for (int q = std::min(filled_, length - 1); q > pos; --q) {
                lists_.candidates[q] = lists_.candidates[q - 1];
                lists_.scores[q] = lists_.scores[q - 1];
                lists_.indices[q] = lists_.indices[q - 1];
            }
            lists_.candidates[pos] = {person, score};
            lists_.scores[pos] = score;
            lists_.indices[pos] = person;
            filled_ = std::min(filled_ + 1, length);
            return;
        }
        case Kind::AllPersons:
            if (filled_ < lists_.length) lists_.candidates[filled_++] = {person, score};
            return;
        case Kind::TopThree: {
            double test = style_.topThreeTestsLastChannel ? lastChannel : value;
            if (test > value_[0]) {
                value_[2] = value_[1];
                index_[2] = index_[1];
                value_[1] = value_[0];
                index_[1] = index_[0];
                value_[0] = value;
                index_[0] = person;
            } else if (value > value_[1]) {
                value_[2] = value_[1];
                index_[2] = index_[1];
                value_[1] = value;
                index_[1] = person;
            } else if (value > value_[2]) {
                value_[2] = value;
                index_[2] = person;
            }
            return;
        }
    }
}

void RankingPass::Finish() {
    if (kind_ == Kind::AllPersons) {
        // Equal scores have no defined order; a stable sort keeps them in dictionary order.
        std::stable_sort(
            lists_.candidates, lists_.candidates + filled_,
            [](const RECOGRESULT& a, const RECOGRESULT& b) { return a.similarity > b.similarity; });
        int copy = style_.allPersonsCopy > 0
                       ? style_.allPersonsCopy
                       : (personCount_ < 9 ? kMinRankingLength : personCount_);
        copy = std::min(copy, lists_.length);
        for (int i = 0; i < copy; ++i) {
            lists_.scores[i] = lists_.candidates[i].similarity;
            lists_.indices[i] = lists_.candidates[i].id;
        }
    } else if (kind_ == Kind::TopThree) {
        for (int i = 0; i < 3 && i < lists_.length; ++i) {
            int32_t score = truncScore(style_.topThreeScale * value_[i]);
            lists_.scores[i] = score;
            lists_.indices[i] = index_[i];
            lists_.candidates[i] = {index_[i], score};
        }
    }
}

}  // namespace msm
