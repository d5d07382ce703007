// The per-frame normalisation on a 640 x 480 grey frame with fourteen points, whole and by stage.
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <msmface/BasicImage.h>

#include "data/face_model.h"
#include "normalise/face_cropping.h"
#include "normalise/feature_extraction.h"

namespace {

constexpr int kW = 640, kH = 480;

struct Scene {
    BasicImageFile frame{kW, kH, 8};
    PartsPosition parts{};
    int32_t modelPoints[28];

    Scene() {
        std::mt19937 gen(1);
        for (int i = 0; i < kW * kH; ++i)
            frame.pixels[i] = static_cast<unsigned char>(gen() % 200 + 28);
        // A face about 150 pixels between the eyes, turned a little.
        int32_t model[28];
        for (int k = 0; k < kFacePointCount; ++k) {
            const float x = FaceReferencePoints[k][0] - 128.0f,
                        y = FaceReferencePoints[k][1] - 128.0f;
            model[2 * k] = static_cast<int32_t>(std::lround(320 + 1.7f * x + 0.2f * y));
            model[2 * k + 1] = static_cast<int32_t>(std::lround(240 - 0.15f * x + 1.75f * y));
        }
        int32_t probe[28], where[28];
        for (int k = 0; k < 28; ++k) probe[k] = k;
        msm::ToModelOrder(probe, where);
        for (int m = 0; m < 28; ++m) parts.points[where[m]] = model[m];
        msm::ToModelOrder(parts.points, modelPoints);
    }
};

// Guards against timing a wrong answer: the face must have texture and the pattern unit length.
bool Sane(const unsigned char* face, const float* slotVector) {
    int distinct = 0;
    for (int i = 1; i < 4096; ++i) distinct += face[i] != face[0];
    return distinct > 1000 && std::isfinite(slotVector[0]);
}

void BM_NormaliseFrame(benchmark::State& state) {
    Scene scene;
    FeatureExtraction fx(kW, kH, 256, 5);
    unsigned char face[4096];
    for (auto _ : state) {
        benchmark::DoNotOptimize(fx.NormaliseFrame(&scene.frame, nullptr, &scene.parts, face));
        benchmark::ClobberMemory();
    }
    if (!Sane(face, fx.patternSlots[0][0])) state.SkipWithError("normalised face is degenerate");
}
BENCHMARK(BM_NormaliseFrame)->Unit(benchmark::kMicrosecond);

// The whole 256 x 256 view, as WarpFace renders it.
void BM_WarpFullView(benchmark::State& state) {
    Scene scene;
    FaceShapeModel model;
    BasicImageFile view(256, 256, 8);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            WarpFace(&model, scene.frame.pixels, kW, kH, &view, scene.modelPoints, nullptr));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_WarpFullView)->Unit(benchmark::kMicrosecond);

// Fit plus the part of the view that the crop reads, as the per-frame step does it.
void BM_WarpCropWindow(benchmark::State& state) {
    Scene scene;
    FaceShapeModel model;
    std::vector<unsigned char> view(256 * 256);
    const msm::ViewWindow window = msm::CropFootprint(256, 256, 85, 109, 171, 109, 1, 1, 64);
    for (auto _ : state) {
        FitPose(&model, scene.modelPoints);
        msm::RenderWarp(model, scene.frame.pixels, kW, kH, view.data(), 1, window);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_WarpCropWindow)->Unit(benchmark::kMicrosecond);

void BM_Crop(benchmark::State& state) {
    Scene scene;
    FaceShapeModel model;
    BasicImageFile view(256, 256, 8);
    WarpFace(&model, scene.frame.pixels, kW, kH, &view, scene.modelPoints, nullptr);
    unsigned char face[4096];
    for (auto _ : state) {
        CropEyeWindow(view.pixels, 256, 256, face, 85, 109, 171, 109, 1, 1, 64);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Crop)->Unit(benchmark::kMicrosecond);

void BM_PatternMap(benchmark::State& state) {
    Scene scene;
    FaceShapeModel model;
    unsigned char face[4096];
    NormaliseFace(&model, kW, kH, scene.frame.pixels, &scene.parts, face);
    CFilterProcessing filters;
    filters.Initialise();
    float map[1024];
    for (auto _ : state) {
        filters.MakePatternMap(face, map);
        benchmark::ClobberMemory();
    }
    if (!std::isfinite(map[0])) state.SkipWithError("pattern map is not finite");
}
BENCHMARK(BM_PatternMap)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
