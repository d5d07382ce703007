// The synthetic face generator's frames (tools/synth) as the library takes them: a sample for the
// modern interface, a picture and its points for the legacy engine. Header-only, so that only the
// benchmarks that link the generator need it.
#ifndef MSMFACE_BENCH_SUPPORT_SYNTH_FRAMES_H
#define MSMFACE_BENCH_SUPPORT_SYNTH_FRAMES_H

#include <algorithm>
#include <memory>
#include <vector>

#include <msmface/BasicImage.h>
#include <msmface/PartsPosition.h>
#include <msmface/gallery.h>

#include "synth/synth_face.h"

namespace msmbench {

// Points into f's pixels: f must outlive it.
inline msmface::Sample sampleOf(const msmsynth::SynthFrame& f) {
    msmface::Sample s;
    s.frame = {f.pixels.data(), f.width, f.height, 0, msmface::PixelFormat::Grey};
    msmface::FacePoints p;
    std::copy(f.points.begin(), f.points.end(), p.xy.begin());
    s.points = p;
    return s;
}

// Samples of the valid frames of a take.
inline std::vector<msmface::Sample> samplesOf(const std::vector<msmsynth::SynthFrame>& frames) {
    std::vector<msmface::Sample> samples;
    for (const msmsynth::SynthFrame& f : frames)
        if (f.valid()) samples.push_back(sampleOf(f));
    return samples;
}

// A frame for FaceRecognition::FaceCropping: its own copy of the pixels, the points rounded to
// whole pixels as a host's detector reports them.
struct LegacyFrame {
    std::unique_ptr<BasicImageFile> image;
    PartsPosition parts{};
};

inline LegacyFrame legacyFrameOf(const msmsynth::SynthFrame& f) {
    LegacyFrame frame;
    frame.image = std::make_unique<BasicImageFile>(f.width, f.height, 8);
    std::copy(f.pixels.begin(), f.pixels.end(), frame.image->pixels);
    const auto rounded = f.roundedPoints();
    std::copy(rounded.begin(), rounded.end(), frame.parts.points);
    return frame;
}

// frames frames of person index of the population seed in one take of a 320 x 240 camera.
inline std::vector<msmsynth::SynthFrame> takeOf(uint32_t population, int index, uint32_t take,
                                                int frames) {
    const msmsynth::SynthPerson person = msmsynth::makePerson(population, index);
    std::vector<msmsynth::SynthFrame> rendered;
    for (const msmsynth::SynthPose& pose : msmsynth::makeSequence(take, frames, 320, 240))
        rendered.push_back(msmsynth::renderFrame(person, pose, 320, 240));
    return rendered;
}

}  // namespace msmbench

#endif  // MSMFACE_BENCH_SUPPORT_SYNTH_FRAMES_H
