// A host of the detector that knows only its installed header and library.
#include <msmface/detect.h>

#include <cstdio>
#include <fstream>
#include <vector>

int main() {
    // Landmark i at (i, 2i): the image-left eye centre is the mean of landmarks 36 to 41.
    std::array<float, 136> landmarks{};
    for (int i = 0; i < 68; ++i) {
        landmarks[2 * i] = static_cast<float>(i);
        landmarks[2 * i + 1] = static_cast<float>(2 * i);
    }
    const msmface::FacePoints points = msmface::pointsFromLandmarks(landmarks);
    bool ok = points.xy[0] == 38.5f && points.xy[1] == 77.0f;

    msmface::DetectorOptions missing;
    missing.modelPath = "/nonexistent/landmarks.dat";
    const auto refused = msmface::Detector::create(missing);
    ok = ok && !refused.ok() && refused.status().kind() == msmface::ErrorKind::NotFound &&
         refused.message().find("libdlib-data") != std::string::npos;

    // With the model installed, the whole chain runs: a blank frame shows no face.
    if (std::ifstream(msmface::kDefaultLandmarkModel)) {
        msmface::DetectorOptions options;
        options.modelPath = msmface::kDefaultLandmarkModel;
        auto detector = msmface::Detector::create(options);
        std::vector<unsigned char> blank(96 * 64, 128);
        const msmface::FrameView frame{blank.data(), 96, 64, 0, msmface::PixelFormat::Grey};
        const auto faces =
            detector.ok() ? detector->detect(frame)
                          : msmface::Result<std::vector<msmface::DetectedFace>>(detector.status());
        ok = ok && faces.ok() && faces->empty();
    }
    std::printf("msmface detect: %s\n", ok ? "ok" : "wrong");
    return ok ? 0 : 1;
}
