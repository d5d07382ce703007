#include "input/frames.h"

#include <cmath>
#include <cstring>
#include <random>

#include <msmface/FaceRecognition.h>

namespace msmcli {

std::vector<Frame> jitterFrames(const std::vector<Frame>& frames, int copies, double pixels,
                                uint32_t seed) {
    std::vector<Frame> out;
    if (copies < 1) copies = 1;
    out.reserve(frames.size() * static_cast<std::size_t>(copies));
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> shift(-pixels, pixels);
    for (int c = 0; c < copies; ++c)
        for (const Frame& f : frames) {
            Frame j = f;
            if (c > 0 && pixels > 0)
                for (double& v : j.points) v += shift(rng);
            out.push_back(std::move(j));
        }
    return out;
}

std::vector<msmface::Sample> samplesOf(const std::vector<Frame>& frames) {
    std::vector<msmface::Sample> samples;
    samples.reserve(frames.size());
    for (const Frame& f : frames) {
        msmface::Sample s;
        if (f.image) {
            s.frame.data = f.image->pixels.data();
            s.frame.width = f.image->width;
            s.frame.height = f.image->height;
        }
        msmface::FacePoints points;
        for (int k = 0; k < 28; ++k) points.xy[k] = static_cast<float>(f.points[k]);
        s.points = points;
        samples.push_back(s);
    }
    return samples;
}

std::vector<int> scoresOf(const msmface::Result<msmface::Ranking>& r,
                          const std::vector<msmface::Person>& persons) {
    std::vector<int> scores(persons.size(), -1);
    if (!r.ok()) return scores;
    for (const msmface::Match& m : r->matches)
        for (std::size_t c = 0; c < persons.size(); ++c)
            if (persons[c].id == m.id) scores[c] = m.score;
    return scores;
}

std::vector<unsigned char> firstNormalisedFace(const std::vector<Frame>& frames) {
    constexpr int kSide = 64;
    // The camera size only sizes a registration's picture; cropping reads each frame's own.
    FaceRecognition engine(320, 240);
    for (const Frame& f : frames) {
        if (!f.image || f.image->pixels.empty()) continue;
        BasicImageFile image(f.image->width, f.image->height, 8);
        BasicImageFile face(kSide, kSide, 8);
        if (image.pixels == nullptr || face.pixels == nullptr) return {};
        std::memcpy(image.pixels, f.image->pixels.data(), f.image->pixels.size());
        PartsPosition parts{};
        for (int k = 0; k < 28; ++k) {
            const double v = f.points[k];
            parts.points[k] = v >= 0 && v < 1.0e6 ? static_cast<int32_t>(std::lround(v)) : 9999;
        }
        if (engine.FaceCropping(&image, nullptr, &parts, &face) == 1)
            return std::vector<unsigned char>(face.pixels, face.pixels + kSide * kSide);
    }
    return {};
}

}  // namespace msmcli
