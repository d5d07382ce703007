// Draws synthetic persons as one contact sheet, so that a person can judge what the generator
// renders and what the normaliser makes of it: one row per person, first the camera frames
// (halved, feature points marked), then the normalised 64 x 64 face of each frame.
//
// usage: synth_contact_sheet <sheet.pgm> [persons] [frames] [seed] [width height]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <msmface/PartsPosition.h>

#include "normalise/face_cropping.h"
#include "normalise/face_shape_model.h"
#include "synth/synth_face.h"

namespace {

constexpr int kGap = 4;

struct Sheet {
    int width, height;
    std::vector<unsigned char> pixels;

    Sheet(int w, int h) : width(w), height(h), pixels(static_cast<size_t>(w) * h, 255) {}
    void Put(int x, int y, unsigned char value) {
        if (x >= 0 && y >= 0 && x < width && y < height)
            pixels[static_cast<size_t>(y) * width + x] = value;
    }
};

void PasteHalved(const msmsynth::SynthFrame& frame, Sheet& sheet, int left, int top) {
    for (int y = 0; y + 1 < frame.height; y += 2)
        for (int x = 0; x + 1 < frame.width; x += 2) {
            const unsigned char* p = &frame.pixels[static_cast<size_t>(y) * frame.width + x];
            const int sum = p[0] + p[1] + p[frame.width] + p[frame.width + 1];
            sheet.Put(left + x / 2, top + y / 2, static_cast<unsigned char>(sum / 4));
        }
    for (int k = 0; k < msmsynth::kPointCount; ++k) {
        const int x = left + static_cast<int>(frame.points[2 * k] / 2);
        const int y = top + static_cast<int>(frame.points[2 * k + 1] / 2);
        for (int d = -1; d <= 1; ++d) {
            sheet.Put(x + d, y, 255);
            sheet.Put(x, y + d, 255);
        }
        sheet.Put(x, y, 0);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <sheet.pgm> [persons] [frames] [seed] [width height]\n",
                     argv[0]);
        return 2;
    }
    const int persons = argc > 2 ? std::clamp(std::atoi(argv[2]), 1, 50) : 8;
    const int frames = argc > 3 ? std::clamp(std::atoi(argv[3]), 1, 20) : 5;
    const uint32_t seed = argc > 4 ? static_cast<uint32_t>(std::strtoul(argv[4], nullptr, 10)) : 1;
    const int width = argc > 6 ? std::clamp(std::atoi(argv[5]), 16, 1280) : 320;
    const int height = argc > 6 ? std::clamp(std::atoi(argv[6]), 16, 960) : 240;

    const int thumbW = width / 2, thumbH = height / 2;
    const int rowH = std::max(thumbH, kNormalisedFaceSize) + kGap;
    Sheet sheet(frames * (thumbW + kGap) + frames * (kNormalisedFaceSize + kGap) + kGap,
                persons * rowH + kGap);
    FaceShapeModel model;
    for (int p = 0; p < persons; ++p) {
        const msmsynth::SynthPerson person = msmsynth::makePerson(seed, p);
        const int top = kGap + p * rowH;
        for (int f = 0; f < frames; ++f) {
            const msmsynth::SynthPose pose = msmsynth::randomPose(
                seed * 7919u + static_cast<uint32_t>(p * 131 + f), width, height);
            const msmsynth::SynthFrame frame = msmsynth::renderFrame(person, pose, width, height);
            PasteHalved(frame, sheet, kGap + f * (thumbW + kGap), top);
            PartsPosition parts{};
            const auto points = frame.roundedPoints();
            std::copy(points.begin(), points.end(), parts.points);
            unsigned char face[kNormalisedFaceSize * kNormalisedFaceSize];
            if (NormaliseFace(&model, width, height, frame.pixels.data(), &parts, face) != 1)
                continue;
            const int left = kGap + frames * (thumbW + kGap) + f * (kNormalisedFaceSize + kGap);
            for (int y = 0; y < kNormalisedFaceSize; ++y)
                for (int x = 0; x < kNormalisedFaceSize; ++x)
                    sheet.Put(left + x, top + y, face[y * kNormalisedFaceSize + x]);
        }
    }
    FILE* out = std::fopen(argv[1], "wb");
    if (!out) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 1;
    }
    std::fprintf(out, "P5\n%d %d\n255\n", sheet.width, sheet.height);
    const bool ok =
        std::fwrite(sheet.pixels.data(), 1, sheet.pixels.size(), out) == sheet.pixels.size();
    if (std::fclose(out) != 0 || !ok) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
