// A person's dictionary made from the patterns of the faces gathered for the person: per channel
// the autocorrelation record that is stored (records of two sessions merge by addition) and its
// KL expansion, the dictionary subspace that recognition compares with. The legacy engine's
// registration and addition and the gallery's enrolment all make their dictionaries here.
#ifndef MSMFACE_RECOGNITION_PERSON_DICTIONARY_H
#define MSMFACE_RECOGNITION_PERSON_DICTIONARY_H

#include <functional>
#include <vector>

#include <msmface/result.h>

#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"

namespace msm {

// Faces a registration gathers before it makes the dictionary; faces beyond are not used.
inline constexpr int kFacesPerRegistration = 50;

// The patterns of the faces gathered for one person, channel by channel, in the order they came.
class GatheredPatterns {
  public:
    // Room for `capacity` faces of `channels` patterns of `dimension` floats; throws
    // std::bad_alloc.
    GatheredPatterns(int channels, int dimension, int capacity);

    int channels() const { return channels_; }
    int dimension() const { return dimension_; }
    int count() const { return count_; }
    bool full() const { return count_ == capacity_; }
    // Where the next face's patterns go: channels() pointers to dimension() floats each. Only
    // add() counts them. requires: !full().
    float* const* next() { return pointers_.data() + static_cast<std::size_t>(count_) * channels_; }
    void add() { ++count_; }
    // rows[c][k]: channel c of face k, for the faces gathered so far.
    std::vector<std::vector<float*>> rows() const;

  private:
    int channels_, dimension_, capacity_, count_ = 0;
    std::vector<float> values_;
    std::vector<float*> pointers_;
};

// One record per channel: rows[c] holds that channel's patterns (dimension floats each), oldest
// first. Fails (Internal) when a record cannot be allocated or the channels are uneven.
msmface::Status buildPersonRecords(const std::vector<std::vector<float*>>& rows, int dimension,
                                   MtrxChunk& records);

// Expands every channel's record into the person's dictionaries. spectrum: null for the plain
// expansion; otherwise it is called after each channel with that channel's eigenvalues divided by
// the trace. Fails (Argument) when an expansion fails or a channel keeps fewer than
// minimumBasis vectors: the faces span too few directions for recognition to compare with.
msmface::Status expandPersonRecords(const MtrxChunk& records, int channels, int minimumBasis,
                                    const std::function<void(const float*)>& spectrum,
                                    DictChunk& dictionaries);

}  // namespace msm

#endif  // MSMFACE_RECOGNITION_PERSON_DICTIONARY_H
