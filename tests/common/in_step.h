// Threads of a test that must provably overlap: steps counted per party, waits for the others
// (a minute at most, so that a party that stopped fails the test instead of hanging it), and a
// flag one thread raises for another.
#ifndef MSMFACE_TESTS_COMMON_IN_STEP_H
#define MSMFACE_TESTS_COMMON_IN_STEP_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace msmtest {

class StepCounts {
  public:
    explicit StepCounts(int parties) : counts_(parties, 0) {}

    // Counts one more step of party.
    void Done(int party) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++counts_[party];
        }
        changed_.notify_all();
    }
    // Counts one more step of party and waits until every party has come as far: parties that
    // arrive before each of their steps run those steps side by side.
    bool Arrive(int party) {
        std::unique_lock<std::mutex> lock(mutex_);
        const int mine = ++counts_[party];
        changed_.notify_all();
        return WaitLocked(lock, std::vector<int>(counts_.size(), 0), mine);
    }
    std::vector<int> Now() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return counts_;
    }
    // False when some party has not done `more` steps beyond `since` within a minute.
    bool WaitForEach(const std::vector<int>& since, int more) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return WaitLocked(lock, since, more);
    }

  private:
    bool WaitLocked(std::unique_lock<std::mutex>& lock, const std::vector<int>& since,
                    int more) const {
        return changed_.wait_for(lock, std::chrono::minutes(1), [&] {
            for (std::size_t p = 0; p < counts_.size(); ++p)
                if (counts_[p] < since[p] + more) return false;
            return true;
        });
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<int> counts_;
};

// A flag one thread raises and others wait for.
class Signal {
  public:
    void Raise() { raised_.Done(0); }
    bool Raised() const { return raised_.Now()[0] > 0; }
    bool Wait() const { return raised_.WaitForEach({0}, 1); }

  private:
    StepCounts raised_{1};
};

}  // namespace msmtest

#endif  // MSMFACE_TESTS_COMMON_IN_STEP_H
