// What the detector's tests share: one loaded model per test program, the real faces of the
// shared folder, and frames composed from them.
#ifndef MSMFACE_TESTS_DETECT_DETECT_SUPPORT_H
#define MSMFACE_TESTS_DETECT_DETECT_SUPPORT_H

#include <msmface/detect.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/pgm.h"

namespace detecttest {

// Sanitized builds run dlib about ten times slower: they look at every tenth real frame.
#ifdef MSMFACE_DETECT_SUBSET
inline constexpr int kRealFrameStep = 10;
#else
inline constexpr int kRealFrameStep = 1;
#endif

// The side of the detector's search window: smaller faces are found only in a doubled frame.
inline constexpr int kDetectorWindowSide = 80;

inline bool haveModel() {
    return static_cast<bool>(std::ifstream(msmface::kDefaultLandmarkModel));
}

// The default detector (model from libdlib-data), loaded once; null when the model is absent.
// upsampleBelowWidth: 0 searches the original size only; any other value gives the detector
// with the default doubling rule (the value of the first such call is kept).
inline const msmface::Detector* sharedDetector(
    int upsampleBelowWidth = msmface::DetectorOptions{}.upsampleBelowWidth) {
    struct Loaded {
        explicit Loaded(int upsample) {
            msmface::DetectorOptions options;
            options.modelPath = msmface::kDefaultLandmarkModel;
            options.upsampleBelowWidth = upsample;
            if (auto created = msmface::Detector::create(options))
                detector.emplace_back(std::move(created).value());
        }
        std::vector<msmface::Detector> detector;
    };
    // Each loaded on first use: loading takes a second or more.
    if (upsampleBelowWidth > 0) {
        static Loaded usual(upsampleBelowWidth);
        return usual.detector.empty() ? nullptr : &usual.detector.front();
    }
    static Loaded originalSize(0);
    return originalSize.detector.empty() ? nullptr : &originalSize.detector.front();
}

struct GreyFrame {
    int width = 0, height = 0;
    std::vector<unsigned char> pixels;
    msmface::FrameView view() const {
        return {pixels.data(), width, height, 0, msmface::PixelFormat::Grey};
    }
};

struct RealFace {
    std::string identity, image;
    GreyFrame frame;
    float points[28] = {};  // the manifest's fourteen points
    double eyeDistance() const { return std::hypot(points[2] - points[0], points[3] - points[1]); }
};

inline std::string facesFolder() {
    return std::string(MSMFACE_SHARED_DIR) + "/faces";
}

// Every step-th frame of the manifest (all when step is 1); empty when the folder is absent.
inline std::vector<RealFace> loadRealFaces(int step = kRealFrameStep) {
    std::vector<RealFace> faces;
    std::ifstream manifest(facesFolder() + "/manifest.csv");
    std::string line;
    std::getline(manifest, line);
    for (int row = 0; std::getline(manifest, line); ++row) {
        if (row % step != 0) continue;
        std::vector<std::string> f;
        std::stringstream fields(line);
        for (std::string x; std::getline(fields, x, ',');) f.push_back(x);
        if (f.size() != 35) continue;
        RealFace face;
        face.identity = f[0];
        face.image = f[4];
        for (int k = 0; k < 28; ++k) face.points[k] = std::strtof(f[7 + k].c_str(), nullptr);
        if (msmtest::ReadPgm(facesFolder() + "/" + f[4], face.frame.width, face.frame.height,
                             face.frame.pixels))
            faces.push_back(std::move(face));
    }
    return faces;
}

// A frame of the given size filled with grey, into which faces are pasted.
inline GreyFrame canvas(int width, int height, unsigned char value = 96) {
    GreyFrame f;
    f.width = width;
    f.height = height;
    f.pixels.assign(static_cast<size_t>(width) * height, value);
    return f;
}

// src scaled by scale (bilinear, pixel centres aligned) with its pixel (0, 0) corner at
// (left, top) of dst; the part outside dst is dropped. A point p of src lands at
// left + (p + 0.5) * scale - 0.5.
inline void paste(const GreyFrame& src, double scale, double left, double top, GreyFrame& dst) {
    for (int y = 0; y < dst.height; ++y) {
        const double sy = (y - top + 0.5) / scale - 0.5;
        if (sy < -0.5 || sy > src.height - 0.5) continue;
        for (int x = 0; x < dst.width; ++x) {
            const double sx = (x - left + 0.5) / scale - 0.5;
            if (sx < -0.5 || sx > src.width - 0.5) continue;
            const double cx = std::clamp(sx, 0.0, src.width - 1.0);
            const double cy = std::clamp(sy, 0.0, src.height - 1.0);
            const int x0 = static_cast<int>(cx), y0 = static_cast<int>(cy);
            const int x1 = std::min(x0 + 1, src.width - 1), y1 = std::min(y0 + 1, src.height - 1);
            const double ax = cx - x0, ay = cy - y0;
            auto at = [&](int xx, int yy) {
                return src.pixels[static_cast<size_t>(yy) * src.width + xx];
            };
            const double v = (1 - ay) * ((1 - ax) * at(x0, y0) + ax * at(x1, y0)) +
                             ay * ((1 - ax) * at(x0, y1) + ax * at(x1, y1));
            dst.pixels[static_cast<size_t>(y) * dst.width + x] =
                static_cast<unsigned char>(std::lround(v));
        }
    }
}

inline double placed(double p, double scale, double offset) {
    return offset + (p + 0.5) * scale - 0.5;
}

// Mean distance of the fourteen points to the expected ones, in eye distances of the expected.
inline double meanPointError(const msmface::FacePoints& got, const float* expected) {
    const double eyes = std::hypot(expected[2] - expected[0], expected[3] - expected[1]);
    double sum = 0;
    for (int k = 0; k < 14; ++k)
        sum += std::hypot(got.xy[2 * k] - expected[2 * k], got.xy[2 * k + 1] - expected[2 * k + 1]);
    return sum / 14 / eyes;
}

// The cosine of the angle between two descriptors.
inline double cosine(const msmface::FaceDescriptor& a, const msmface::FaceDescriptor& b) {
    double ab = 0, aa = 0, bb = 0;
    for (int i = 0; i < msmface::kDescriptorSize; ++i) {
        ab += static_cast<double>(a[i]) * b[i];
        aa += static_cast<double>(a[i]) * a[i];
        bb += static_cast<double>(b[i]) * b[i];
    }
    return ab / std::sqrt(aa * bb);
}

// A real frame with one face that the detector finds clearly, larger than its window, and whose
// points agree with the manifest's: a face that a sequence can rely on.
inline const RealFace* clearFace(const std::vector<RealFace>& faces,
                                 const msmface::Detector& detector, size_t from = 0) {
    for (size_t i = from; i < faces.size(); ++i) {
        if (faces[i].eyeDistance() < 35 || faces[i].frame.height > 230) continue;
        const auto found = detector.detect(faces[i].frame.view());
        if (found->size() == 1 && found->front().score > 0.5 &&
            meanPointError(found->front().points, faces[i].points) < 0.1)
            return &faces[i];
    }
    return nullptr;
}

}  // namespace detecttest

// In a test: skips it without the landmark model or the shared faces; else declares faces (every
// frame of the manifest) and detector (the shared default one).
#define SKIP_WITHOUT_DETECTOR_OR_ALL_FACES()                                            \
    if (!detecttest::haveModel())                                                       \
        GTEST_SKIP() << "no landmark model at " << msmface::kDefaultLandmarkModel;      \
    const std::vector<detecttest::RealFace> faces = detecttest::loadRealFaces(1);       \
    if (faces.empty()) GTEST_SKIP() << "no face data at " << detecttest::facesFolder(); \
    const msmface::Detector* detector = detecttest::sharedDetector();                   \
    ASSERT_NE(detector, nullptr)

#endif  // MSMFACE_TESTS_DETECT_DETECT_SUPPORT_H
