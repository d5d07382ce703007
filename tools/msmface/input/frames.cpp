#include "input/frames.h"

#include <utility>

#include <msmface/face_input.h>

namespace msmcli {

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
        s.points = msmface::toFacePoints(f.points);
        s.descriptor = f.descriptor;
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
    for (const msmface::Sample& s : samplesOf(frames)) {
        if (s.frame.data == nullptr) continue;
        auto face = msmface::normalisedFace(s.frame, *s.points);
        if (face.ok()) return std::move(face.value());
    }
    return {};
}

}  // namespace msmcli
