// Poses for single frames and for live-camera takes.
#include <algorithm>
#include <cmath>

#include "synth_face.h"
#include "synth_random.h"

namespace msmsynth {
namespace {

bool SizeIsUsable(int width, int height) {
    return width >= 1 && height >= 1 && width <= kMaxFrameSide && height <= kMaxFrameSide;
}

// The largest eye distance whose head (about three eye distances tall) fits the frame, kept
// within the 40 ... 90 pixels a host's detector typically reports.
float LargestEyeDistance(int width, int height) {
    const float fit = static_cast<float>(std::min(width, height)) / 3.3f;
    return std::clamp(fit, 1.0f, 90.0f);
}

// A slow oscillation: amplitude times a sine of the given period (in frames) and a random phase.
struct Drift {
    float amplitude = 0, period = 1, phase = 0;

    Drift() = default;
    Drift(Random& rng, float maxAmplitude, float shortest, float longest)
        : amplitude(rng.Uniform(0.4f, 1.0f) * maxAmplitude),
          period(rng.Uniform(shortest, longest)),
          phase(rng.Uniform(0.0f, 6.2831853f)) {}
    float At(int frame) const {
        return amplitude * std::sin(6.2831853f * static_cast<float>(frame) / period + phase);
    }
};

}  // namespace

SynthPose randomPose(uint32_t seed, int width, int height) {
    SynthPose pose;
    if (!SizeIsUsable(width, height)) return pose;
    Random rng(StreamSeed(seed, 0x706f7365ull));
    pose.yaw = rng.Symmetric(15.0f);
    pose.pitch = rng.Symmetric(10.0f);
    pose.roll = rng.Symmetric(10.0f);
    const float largest = LargestEyeDistance(width, height);
    pose.eyeDistance = rng.Uniform(std::min(40.0f, largest), largest);
    // The head reaches about 1.5 eye distances to either side of its centre and down to the chin.
    const float w = static_cast<float>(width), h = static_cast<float>(height);
    const float marginX = std::min(1.5f * pose.eyeDistance, 0.5f * w);
    const float marginY = std::min(1.5f * pose.eyeDistance, 0.5f * h);
    pose.centreX = rng.Uniform(marginX, w - marginX);
    pose.centreY = rng.Uniform(marginY, h - marginY);
    pose.lightAzimuth = rng.Symmetric(45.0f);
    pose.lightElevation = rng.Uniform(0.0f, 45.0f);
    pose.ambient = rng.Uniform(0.3f, 0.55f);
    pose.diffuse = rng.Uniform(0.45f, 0.7f);
    pose.noise = rng.Uniform(1.0f, 3.0f);
    pose.noiseSeed = rng.NextU32();
    pose.backgroundSeed = rng.NextU32();
    return pose;
}

std::vector<SynthPose> makeSequence(uint32_t seed, int frameCount, int width, int height) {
    std::vector<SynthPose> poses;
    if (frameCount < 0 || frameCount > kMaxSequenceLength || !SizeIsUsable(width, height))
        return poses;
    Random rng(StreamSeed(seed, 0x74616b65ull));
    // The take wanders around one randomly drawn pose, with amplitudes that stay inside the
    // single-frame ranges.
    const SynthPose centre = randomPose(rng.NextU32(), width, height);
    const float largest = LargestEyeDistance(width, height);
    const float eyeBase = std::min(centre.eyeDistance, 0.92f * largest);
    const Drift yaw(rng, 15.0f - std::fabs(centre.yaw) * 0.5f, 30, 90);
    const Drift pitch(rng, 6.0f, 40, 110);
    const Drift roll(rng, 5.0f, 50, 130);
    const Drift scale(rng, 0.08f, 60, 160);
    const Drift moveX(rng, 0.25f, 50, 140), moveY(rng, 0.15f, 50, 140);
    const Drift lightTurn(rng, 25.0f, 80, 200), lightRise(rng, 10.0f, 80, 200);
    const Drift brightness(rng, 0.08f, 70, 180);
    const float w = static_cast<float>(width), h = static_cast<float>(height);
    poses.reserve(static_cast<size_t>(frameCount));
    for (int t = 0; t < frameCount; ++t) {
        SynthPose p = centre;
        p.yaw = std::clamp(0.5f * centre.yaw + yaw.At(t), -15.0f, 15.0f);
        p.pitch = std::clamp(0.5f * centre.pitch + pitch.At(t), -10.0f, 10.0f);
        p.roll = std::clamp(0.5f * centre.roll + roll.At(t), -10.0f, 10.0f);
        p.eyeDistance = eyeBase * (1.0f + scale.At(t));
        const float marginX = std::min(1.5f * p.eyeDistance, 0.5f * w);
        const float marginY = std::min(1.5f * p.eyeDistance, 0.5f * h);
        p.centreX = std::clamp(centre.centreX + moveX.At(t) * p.eyeDistance, marginX, w - marginX);
        p.centreY = std::clamp(centre.centreY + moveY.At(t) * p.eyeDistance, marginY, h - marginY);
        p.lightAzimuth = centre.lightAzimuth + lightTurn.At(t);
        p.lightElevation = centre.lightElevation + lightRise.At(t);
        p.ambient = centre.ambient * (1.0f + brightness.At(t));
        p.diffuse = centre.diffuse * (1.0f + brightness.At(t));
        p.noiseSeed = static_cast<uint32_t>(StreamSeed(seed, static_cast<uint64_t>(t), 0x6e6full));
        poses.push_back(p);
    }
    return poses;
}

}  // namespace msmsynth
