// The ranked result of a recognition and the three ways of filling it: a ranked list of fixed
// length (result mode 1), every person sorted (mode 2), or the best three (every other mode).
//
// Threads. No locks: one thread at a time per object.
#ifndef MSMFACE_RECOGNITION_RANKING_H
#define MSMFACE_RECOGNITION_RANKING_H

#include <cstdint>

#include <msmface/RecogResult.h>

namespace msm {

// Longest ranking accepted from a host: no database holds more persons.
constexpr int kMaxRankingLength = 2000;
constexpr int kMinRankingLength = 10;

// Three parallel lists of `length` entries, best first. The host reads them through pointers it
// copies, so they move only when they are reallocated.
class ResultLists {
  public:
    int32_t length = 0;
    RECOGRESULT* candidates = nullptr;  // {person index, score}
    int32_t* scores = nullptr;
    int32_t* indices = nullptr;

    ResultLists() = default;
    ~ResultLists();
    ResultLists(const ResultLists&) = delete;
    ResultLists& operator=(const ResultLists&) = delete;

    // New lists of n entries: every pair {0, -999}, every score -999, every index 0. Returns 1,
    // or 0 after "cannot malloc." (the lists are then empty, length 0).
    int Reset(int n);

  private:
    void Release();
};

// How a pass reads its persons' values.
struct RankingStyle {
    // Top three: the first comparison takes the last channel's value instead of the person's
    // (kept: the subspace paths have always ranked that way; the constraint-space path does not).
    bool topThreeTestsLastChannel = true;
    // Top three: factor from a value to its score (1000 for similarities, 1 for scores).
    double topThreeScale = 1000.0;
    // Mode 2: pairs copied into the score and index lists; <= 0 copies the person count when it
    // is 9 or more, else 10 (the single-pattern method's rule).
    int allPersonsCopy = 10;
};

// One ranking of the persons offered in dictionary order.
class RankingPass {
  public:
    // Prepares the lists for the mode (mode 2 reallocates them when the person count changes
    // their length).
    RankingPass(ResultLists& lists, int mode, int personCount, const RankingStyle& style);
    // score: the person's score; value: the same before conversion (the top-three comparisons
    // use it); lastChannel: the last channel's own value.
    void Offer(int person, int32_t score, double value, double lastChannel);
    // Writes what the mode leaves for the end into the lists.
    void Finish();

  private:
    enum class Kind { Ranked, AllPersons, TopThree };

    ResultLists& lists_;
    Kind kind_;
    RankingStyle style_;
    int personCount_;
    int filled_ = 0;
    double value_[3] = {0.0, -1.0, -2.0};
    int index_[3] = {-1, -1, -1};
};

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_RANKING_H
