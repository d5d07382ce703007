#include <msmface/jitter.h>

#include <cmath>
#include <cstdio>
#include <string>

namespace msmface {
namespace {

bool present(float x, float y) {
    return std::isfinite(x) && std::isfinite(y) && x >= 0.0f && y >= 0.0f;
}

std::string numberText(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v);
    return text;
}

Status checkPixels(double pixels) {
    if (pixels >= 0.0 && pixels <= kMaxJitterPixels) return {};
    return Status::failure(ErrorKind::Argument, "pixels " + numberText(pixels) +
                                                    ": expected 0 to 1000 pixels of jitter");
}

}  // namespace

Jitter::Jitter(uint32_t seed, double pixels) : generator_(seed), pixels_(pixels) {}

double Jitter::nextShift() {
    // Written out rather than left to std::uniform_real_distribution, whose algorithm each
    // standard library chooses for itself: these are the numbers other hosts reproduce.
    const double a = static_cast<double>(generator_());
    const double b = static_cast<double>(generator_());
    double u = (a + b * 4294967296.0) / 18446744073709551616.0;
    if (u >= 1.0) u = std::nextafter(1.0, 0.0);
    return u * (pixels_ - -pixels_) + -pixels_;
}

FacePoints Jitter::moved(const FacePoints& points) {
    FacePoints out = points;
    for (int k = 0; k < kFacePointCount; ++k) {
        const double dx = nextShift(), dy = nextShift();
        float& x = out.xy[2 * k];
        float& y = out.xy[2 * k + 1];
        if (!present(x, y)) continue;
        x = static_cast<float>(static_cast<double>(x) + dx);
        y = static_cast<float>(static_cast<double>(y) + dy);
    }
    return out;
}

Result<std::vector<Sample>> jitterFrames(const std::vector<Sample>& frames, int copies,
                                         double pixels, uint32_t seed) {
    if (copies < 1 || copies > kMaxJitterCopies)
        return Status::failure(ErrorKind::Argument,
                               "copies " + std::to_string(copies) + ": expected 1 to 1000");
    if (Status bad = checkPixels(pixels); !bad) return bad;
    std::vector<Sample> out;
    out.reserve(frames.size() * static_cast<std::size_t>(copies));
    out.insert(out.end(), frames.begin(), frames.end());
    Jitter jitter(seed, pixels);
    for (int c = 1; c < copies; ++c)
        for (const Sample& s : frames) {
            Sample copy = s;
            if (copy.points) copy.points = jitter.moved(*copy.points);
            out.push_back(copy);
        }
    return out;
}

Result<std::vector<Sample>> offerFrames(const std::vector<Sample>& frames, int wanted,
                                        double pixels, uint32_t seed) {
    if (frames.empty())
        return Status::failure(ErrorKind::Argument, "frames: expected at least one frame");
    if (wanted < 1 || wanted > kMaxOfferedFrames)
        return Status::failure(ErrorKind::Argument, "wanted " + std::to_string(wanted) +
                                                        ": expected 1 to 1000000 frames");
    const std::size_t n = frames.size();
    const std::size_t want = static_cast<std::size_t>(wanted);
    const std::size_t copies = (want + n - 1) / n;
    if (copies > static_cast<std::size_t>(kMaxJitterCopies))
        return Status::failure(ErrorKind::Argument,
                               "wanted " + std::to_string(wanted) + ": expected at most " +
                                   std::to_string(kMaxJitterCopies) + " copies of the " +
                                   std::to_string(n) + " frames given");
    return jitterFrames(frames, static_cast<int>(copies), pixels, seed);
}

}  // namespace msmface
