// Synthetic face descriptors for the tests of galleries of descriptors: no model is needed. A
// person is a direction, part of it shared by everybody (descriptors of different persons are far
// from orthogonal, as a network's are), and each view of the person scatters a little around it.
#ifndef MSMFACE_TESTS_GALLERY_DESCRIPTOR_SUPPORT_H
#define MSMFACE_TESTS_GALLERY_DESCRIPTOR_SUPPORT_H

#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include <msmface/frame.h>
#include <msmface/gallery.h>

namespace gallerytest {

class SynthDescriptors {
  public:
    // scatter: the length of a view's departure from its person's direction.
    SynthDescriptors(int persons, uint32_t seed, double scatter = 0.3)
        : rng_(seed), scatter_(scatter) {
        const std::vector<double> common = unitRandom();
        for (int p = 0; p < persons; ++p) {
            std::vector<double> own = unitRandom();
            for (int i = 0; i < msmface::kDescriptorSize; ++i)
                own[i] = 0.6 * common[i] + 0.8 * own[i];
            identities_.push_back(own);
        }
    }

    // A fresh view of person p (not normalised: a host hands over what its network gives).
    msmface::FaceDescriptor view(int p) {
        std::normal_distribution<double> noise(0.0, scatter_ / std::sqrt(msmface::kDescriptorSize));
        msmface::FaceDescriptor d{};
        for (int i = 0; i < msmface::kDescriptorSize; ++i)
            d[i] = static_cast<float>(identities_[p][i] + noise(rng_));
        return d;
    }

    std::vector<msmface::FaceDescriptor> views(int p, int count) {
        std::vector<msmface::FaceDescriptor> out;
        for (int k = 0; k < count; ++k) out.push_back(view(p));
        return out;
    }

  private:
    std::vector<double> unitRandom() {
        std::normal_distribution<double> normal(0.0, 1.0);
        std::vector<double> v(msmface::kDescriptorSize);
        double length = 0.0;
        for (double& x : v) {
            x = normal(rng_);
            length += x * x;
        }
        for (double& x : v) x /= std::sqrt(length);
        return v;
    }

    std::mt19937 rng_;
    double scatter_;
    std::vector<std::vector<double>> identities_;
};

// Samples that carry only their descriptor (their frames are empty: a gallery of descriptors does
// not look at them).
inline std::vector<msmface::Sample> DescriptorSamples(
    const std::vector<msmface::FaceDescriptor>& descriptors) {
    std::vector<msmface::Sample> out;
    for (const msmface::FaceDescriptor& d : descriptors) {
        msmface::Sample s;
        s.descriptor = d;
        out.push_back(s);
    }
    return out;
}

// Small grey frames, each standing for a camera frame whose face a finder describes.
struct TinyFrames {
    std::vector<std::vector<unsigned char>> pixels;
    explicit TinyFrames(int count) : pixels(static_cast<std::size_t>(count)) {
        for (int k = 0; k < count; ++k) pixels[k].assign(16, static_cast<unsigned char>(k));
    }
    msmface::FrameView view(int k) const {
        msmface::FrameView v;
        v.data = pixels[k].data();
        v.width = 4;
        v.height = 4;
        return v;
    }
};

// A descriptor finder that knows the descriptor of each frame by its pixels' address; frames it
// does not know show no face. Counts its calls and resets.
class TableDescriptorFinder : public msmface::DescriptorFinder {
  public:
    bool findDescriptor(const msmface::FrameView& frame, msmface::FaceDescriptor& out) override {
        ++calls;
        const auto found = table.find(frame.data);
        if (found == table.end()) return false;
        out = found->second;
        return true;
    }
    void reset() override { ++resets; }

    std::map<const unsigned char*, msmface::FaceDescriptor> table;
    int calls = 0;
    int resets = 0;
};

}  // namespace gallerytest

#endif  // MSMFACE_TESTS_GALLERY_DESCRIPTOR_SUPPORT_H
