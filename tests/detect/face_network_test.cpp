// The network face finder: its boxes on real faces, what it adds to the HOG detector, the hosts
// that gain it, and its weight files when they are missing or hostile.
#ifdef MSMFACE_HAVE_DESCRIPTOR

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <msmface/descriptor.h>
#include <msmface/detect.h>
#include <msmface/tracker.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/pgm.h"
#include "common/scratch_dir.h"
#include "detect/detect_support.h"

namespace {

using detecttest::GreyFrame;
using detecttest::RealFace;
using msmface::Detector;
using msmface::ErrorKind;
using msmface::FaceBox;

// Every 30th real frame: fewer make the landmark agreement below too coarse to tell a misframed
// box (sanitized builds take the same, at about three times the time).
constexpr int kFrameStep = 30;

std::string installedFolder() {
    return msmface::defaultDescriptorModelFolder();
}

bool haveWeights() {
    return static_cast<bool>(
        std::ifstream(installedFolder() + "/" + msmface::kFaceNetworkManifestFile));
}

msmface::DetectorOptions networkOptions(const std::string& path = installedFolder()) {
    msmface::DetectorOptions options;
    options.modelPath = msmface::kDefaultLandmarkModel;
    options.finder = msmface::FaceFinder::Network;
    options.networkPath = path;
    return options;
}

// The network Detector with the installed weights, loaded once; null when it cannot be.
const Detector* sharedNetwork() {
    static const std::vector<Detector> loaded = [] {
        std::vector<Detector> d;
        if (auto r = Detector::create(networkOptions())) d.push_back(std::move(r).value());
        return d;
    }();
    return loaded.empty() ? nullptr : &loaded.front();
}

#define REQUIRE_NETWORK()                                                          \
    if (!detecttest::haveModel())                                                  \
        GTEST_SKIP() << "no landmark model at " << msmface::kDefaultLandmarkModel; \
    if (!haveWeights())                                                            \
        GTEST_SKIP() << "no face network in " << installedFolder()                 \
                     << " (tools/fetch_descriptor_model.sh installs it)";          \
    const Detector* network = sharedNetwork();                                     \
    ASSERT_NE(network, nullptr)

#define REQUIRE_FACES()                                                        \
    const std::vector<RealFace> faces = detecttest::loadRealFaces(kFrameStep); \
    if (faces.empty()) GTEST_SKIP() << "no face data at " << detecttest::facesFolder()

double iou(const FaceBox& a, const FaceBox& b) {
    const double w = std::min(a.left + a.width, b.left + b.width) - std::max(a.left, b.left);
    const double h = std::min(a.top + a.height, b.top + b.height) - std::max(a.top, b.top);
    if (w <= 0 || h <= 0) return 0;
    return w * h /
           (static_cast<double>(a.width) * a.height + static_cast<double>(b.width) * b.height -
            w * h);
}

// A real frame placed in a 640 x 480 grey scene at scale, its corner at (left, top), with its
// points moved along.
struct Scene {
    GreyFrame frame;
    float points[28];
    FaceBox reference;  // the box the points imply
};

bool place(const RealFace& face, double scale, double left, double top, Scene& out) {
    out.frame = detecttest::canvas(640, 480);
    detecttest::paste(face.frame, scale, left, top, out.frame);
    msmface::FacePoints p;
    for (int k = 0; k < 28; k += 2) {
        out.points[k] = static_cast<float>(detecttest::placed(face.points[k], scale, left));
        out.points[k + 1] = static_cast<float>(detecttest::placed(face.points[k + 1], scale, top));
        p.xy[k] = out.points[k];
        p.xy[k + 1] = out.points[k + 1];
    }
    const auto box = msmface::boxFromPoints(p);
    if (!box) return false;
    out.reference = *box;
    return true;
}

// The found face that best overlaps the reference box, or nullptr below minOverlap.
const msmface::DetectedFace* match(const std::vector<msmface::DetectedFace>& found,
                                   const FaceBox& reference, double minOverlap) {
    const msmface::DetectedFace* best = nullptr;
    for (const auto& f : found)
        if (iou(f.box, reference) >= minOverlap &&
            (best == nullptr || iou(f.box, reference) > iou(best->box, reference)))
            best = &f;
    return best;
}

// The boxes cover the faces, framed as the landmark model expects: where the HOG detector finds
// the face too, the points fitted in the network's box are those fitted in the HOG box (the
// model converges to one shape from a box framed alike; a box a sixth of its side too high or
// too small moves them several times further).
TEST(FaceNetwork, BoxesOnRealFacesCoverThemAndTheirLandmarksFit) {
    REQUIRE_NETWORK();
    REQUIRE_FACES();
    const Detector* hog = detecttest::sharedDetector();
    ASSERT_NE(hog, nullptr);
    int scenes = 0, covered = 0;
    std::vector<double> errors, apart;
    for (size_t i = 0; i < faces.size(); ++i) {
        Scene s;
        if (!place(faces[i], 1.0, 40 + (i * 37) % 300, 30 + (i * 53) % 200, s)) continue;
        const auto found = network->detect(s.frame.view());
        ASSERT_TRUE(found.ok()) << found.message();
        ++scenes;
        for (const auto& f : *found) {
            EXPECT_GE(f.score, 0.5);
            EXPECT_LE(f.score, 1.0);
        }
        const auto* hit = match(*found, s.reference, 0.5);
        if (hit == nullptr) continue;
        ++covered;
        errors.push_back(detecttest::meanPointError(hit->points, s.points));
        const auto byHog = hog->detect(s.frame.view());
        ASSERT_TRUE(byHog.ok());
        if (const auto* h = match(*byHog, s.reference, 0.5)) {
            float hogPoints[28];
            std::copy(h->points.xy.begin(), h->points.xy.end(), hogPoints);
            apart.push_back(detecttest::meanPointError(hit->points, hogPoints));
        }
    }
    ASSERT_GT(scenes, 0);
    EXPECT_GE(covered, 0.8 * scenes) << covered << " of " << scenes;
    ASSERT_GE(apart.size(), 5u);
    const auto median = [](std::vector<double> v) {
        std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
        return v[v.size() / 2];
    };
    EXPECT_LT(median(errors), 0.08) << "median landmark error, in eye distances";
    EXPECT_LT(median(apart), 0.017) << "median distance to the HOG box's points";
}

// Moving the picture moves the boxes by as much, and mirroring it mirrors them: the anchors are
// decoded in the order the network lays them out, across the whole frame.
TEST(FaceNetwork, BoxesFollowTheFaceAcrossTheFrameAndInAMirror) {
    REQUIRE_NETWORK();
    REQUIRE_FACES();
    int compared = 0, mirrorChecks = 0;
    for (size_t i = 0; i < faces.size() && compared < 6; ++i) {
        Scene a, b;
        if (!place(faces[i], 1.0, 30, 20, a) || !place(faces[i], 1.0, 340, 210, b)) continue;
        const auto fa = network->detect(a.frame.view());
        const auto fb = network->detect(b.frame.view());
        ASSERT_TRUE(fa.ok() && fb.ok());
        const auto* ha = match(*fa, a.reference, 0.5);
        const auto* hb = match(*fb, b.reference, 0.5);
        if (ha == nullptr || hb == nullptr) continue;
        ++compared;
        const double tolerance = 0.12 * ha->box.width;
        EXPECT_NEAR(hb->box.left - ha->box.left, 310, tolerance) << faces[i].image;
        EXPECT_NEAR(hb->box.top - ha->box.top, 190, tolerance) << faces[i].image;
        EXPECT_NEAR(hb->box.width, ha->box.width, tolerance) << faces[i].image;

        GreyFrame mirrored = a.frame;
        for (int y = 0; y < mirrored.height; ++y)
            std::reverse(mirrored.pixels.begin() + y * mirrored.width,
                         mirrored.pixels.begin() + (y + 1) * mirrored.width);
        const auto fm = network->detect(mirrored.view());
        ASSERT_TRUE(fm.ok());
        FaceBox expected = ha->box;
        expected.left = 640 - ha->box.left - ha->box.width;
        // A face near its confidence threshold may fall below it in the mirror; one found there
        // must sit where the mirror puts it.
        const auto* near = match(*fm, expected, 0.01);
        if (near == nullptr) continue;
        ++mirrorChecks;
        EXPECT_GE(iou(near->box, expected), 0.7) << faces[i].image << " mirrored";
    }
    EXPECT_GE(compared, 3);
    EXPECT_GE(mirrorChecks, 3);
}

// Faces a little under the HOG detector's window: the network finds some that HOG misses even
// in the doubled frame, and a Follower of the network Detector follows them from the first
// frame while one of the HOG Detector sees nothing; so does a Tracker.
TEST(FaceNetwork, FindsFacesThatHogMissesAndFollowersGainThem) {
    REQUIRE_NETWORK();
    const std::vector<RealFace> faces = detecttest::loadRealFaces(10);
    if (faces.empty()) GTEST_SKIP() << "no face data at " << detecttest::facesFolder();
    const Detector* hog = detecttest::sharedDetector();
    ASSERT_NE(hog, nullptr);
    int hogMissed = 0, networkOnly = 0;
    // The first such face is enough; the scan stops there.
    for (size_t i = 0; i < faces.size() && networkOnly == 0; ++i) {
        msmface::FacePoints p;
        std::copy(faces[i].points, faces[i].points + 28, p.xy.begin());
        const auto own = msmface::boxFromPoints(p);
        if (!own) continue;
        // In a 320 x 240 scene, the face's box 60 pixels wide.
        GreyFrame scene = detecttest::canvas(320, 240);
        const double scale = 60.0 / own->width;
        const double left = 20 + (i * 37) % 150, top = 10 + (i * 53) % 80;
        detecttest::paste(faces[i].frame, scale, left, top, scene);
        FaceBox reference = *own;
        reference.left = static_cast<int>(std::lround(detecttest::placed(own->left, scale, left)));
        reference.top = static_cast<int>(std::lround(detecttest::placed(own->top, scale, top)));
        reference.width = reference.height = 60;
        const auto byHog = hog->detect(scene.view());
        ASSERT_TRUE(byHog.ok());
        if (match(*byHog, reference, 0.3) != nullptr) continue;
        ++hogMissed;
        const auto byNetwork = network->detect(scene.view());
        ASSERT_TRUE(byNetwork.ok());
        if (match(*byNetwork, reference, 0.3) == nullptr) continue;
        ++networkOnly;
        msmface::Follower withNetwork(*network), withHog(*hog);
        msmface::DetectedFace followed;
        EXPECT_TRUE(withNetwork.track(scene.view(), followed)) << faces[i].image;
        EXPECT_GE(iou(followed.box, reference), 0.3) << faces[i].image;
        EXPECT_FALSE(withHog.track(scene.view(), followed)) << faces[i].image;
        auto networkTracker = msmface::Tracker::create(*network);
        auto hogTracker = msmface::Tracker::create(*hog);
        ASSERT_TRUE(networkTracker.ok() && hogTracker.ok());
        const auto byNetworkTracker = networkTracker->update(scene.view());
        const auto byHogTracker = hogTracker->update(scene.view());
        ASSERT_TRUE(byNetworkTracker.ok() && byHogTracker.ok());
        ASSERT_EQ(byNetworkTracker->faces.size(), 1u) << faces[i].image;
        EXPECT_GE(iou(byNetworkTracker->faces[0].face.box, reference), 0.3) << faces[i].image;
        EXPECT_TRUE(byHogTracker->faces.empty()) << faces[i].image;
    }
    EXPECT_GE(networkOnly, 1) << "of " << hogMissed << " faces HOG missed";
}

TEST(FaceNetwork, AFrameWithoutFacesOrOfOddSizesGivesNoneAndNoFailure) {
    REQUIRE_NETWORK();
    for (const auto& [w, h] : {std::pair{640, 480}, {1, 1}, {1, 700}, {900, 3}}) {
        const GreyFrame blank = detecttest::canvas(w, h, 128);
        const auto found = network->detect(blank.view());
        ASSERT_TRUE(found.ok()) << w << "x" << h << ": " << found.message();
        EXPECT_TRUE(found->empty()) << w << "x" << h;
    }
}

class FaceNetworkFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string installed = installedFolder();
        manifest_ = msmtest::ReadBytes(installed + "/" + msmface::kFaceNetworkManifestFile);
        weights_ = msmtest::ReadBytes(installed + "/" + kWeightsFile);
    }
    bool haveFiles() const { return !manifest_.empty() && !weights_.empty(); }
    std::string write(const std::string& manifest, const std::vector<unsigned char>& weights) {
        std::ofstream(dir_ / msmface::kFaceNetworkManifestFile, std::ios::binary) << manifest;
        std::ofstream(dir_ / kWeightsFile, std::ios::binary)
            .write(reinterpret_cast<const char*>(weights.data()),
                   static_cast<std::streamsize>(weights.size()));
        return dir_.path();
    }
    std::string text() const { return std::string(manifest_.begin(), manifest_.end()); }
    static void expectRefused(const msmface::Result<Detector>& r, ErrorKind kind,
                              const std::string& part, const char* what) {
        ASSERT_FALSE(r.ok()) << what;
        EXPECT_EQ(r.status().kind(), kind) << what << ": " << r.message();
        EXPECT_NE(r.message().find(part), std::string::npos) << what << ": " << r.message();
        EXPECT_EQ(r.message().find('\n'), std::string::npos) << what << ": " << r.message();
    }

    static constexpr const char* kWeightsFile = "ssd_mobilenetv1_model.bin";
    msmtest::ScratchDir dir_{"face_network"};
    std::vector<unsigned char> manifest_, weights_;
};

TEST_F(FaceNetworkFiles, MissingWeightsNameTheFetchScriptAndBadOptionsAreRefused) {
    if (!detecttest::haveModel()) GTEST_SKIP() << "no landmark model";
    const std::string missing = dir_ / "nowhere";
    expectRefused(Detector::create(networkOptions(missing)), ErrorKind::NotFound,
                  "tools/fetch_descriptor_model.sh", "missing folder");
    expectRefused(Detector::create(networkOptions(missing)), ErrorKind::NotFound, missing,
                  "missing folder");
    auto options = networkOptions(missing);
    for (double t : {0.0, 1.0, -0.5}) {
        options.networkThreshold = t;
        expectRefused(Detector::create(options), ErrorKind::Argument, "networkThreshold",
                      "threshold");
    }
    options = networkOptions(missing);
    options.finder = static_cast<msmface::FaceFinder>(7);
    expectRefused(Detector::create(options), ErrorKind::Argument, "finder", "unknown finder");
    if (!haveFiles()) GTEST_SKIP() << "no face network in " << installedFolder();
    // The manifest there, its weights not.
    std::ofstream(dir_ / msmface::kFaceNetworkManifestFile, std::ios::binary) << text();
    expectRefused(Detector::create(networkOptions(dir_.path())), ErrorKind::NotFound, kWeightsFile,
                  "missing weights");
    // Found through the descriptor's variable, which may name a folder or a manifest (then the
    // network's manifest beside it is taken); the option wins over it.
    write(text(), weights_);
    const char* saved = std::getenv(msmface::kDescriptorModelEnvironment);
    const std::string restore = saved != nullptr ? saved : "";
    ::setenv(msmface::kDescriptorModelEnvironment,
             (dir_ / msmface::kDescriptorManifestFile).c_str(), 1);
    EXPECT_TRUE(Detector::create(networkOptions("")).ok());
    ::setenv(msmface::kDescriptorModelEnvironment, missing.c_str(), 1);
    expectRefused(Detector::create(networkOptions("")), ErrorKind::NotFound, missing,
                  "environment");
    expectRefused(Detector::create(networkOptions(dir_.path() + "/none")), ErrorKind::NotFound,
                  dir_.path() + "/none", "the option over the environment");
    if (saved != nullptr)
        ::setenv(msmface::kDescriptorModelEnvironment, restore.c_str(), 1);
    else
        ::unsetenv(msmface::kDescriptorModelEnvironment);
}

TEST_F(FaceNetworkFiles, HostileWeightFilesAreRefusedWithOneLine) {
    if (!detecttest::haveModel()) GTEST_SKIP() << "no landmark model";
    if (!haveFiles()) GTEST_SKIP() << "no face network in " << installedFolder();
    const std::string expected = "expected " + std::to_string(weights_.size());
    auto shorter = weights_;
    shorter.resize(weights_.size() - 4096);
    expectRefused(Detector::create(networkOptions(write(text(), shorter))), ErrorKind::File,
                  expected, "truncated weights");
    auto longer = weights_;
    longer.push_back(0);
    expectRefused(Detector::create(networkOptions(write(text(), longer))), ErrorKind::File,
                  expected, "longer weights");
    std::string cut = text();
    cut.resize(cut.size() / 3);
    expectRefused(Detector::create(networkOptions(write(cut, weights_))), ErrorKind::File,
                  "not JSON", "truncated manifest");

    // Well-formed manifests of another network: a shape changed (the bytes still add up), a
    // tensor renamed, the anchors of another input size.
    std::string reshaped = text();
    const std::string shape = "\"shape\":[1,1,512,9]";
    std::size_t at = reshaped.find(shape);
    ASSERT_NE(at, std::string::npos) << "the class predictor's shape is not in the manifest";
    reshaped.replace(at, shape.size(), "\"shape\":[1,1,9,512]");
    expectRefused(Detector::create(networkOptions(write(reshaped, weights_))), ErrorKind::File,
                  "needs [1,1,512,9]", "reshaped tensor");
    std::string renamed = text();
    at = renamed.find("MobilenetV1/Conv2d_7_depthwise/depthwise_weights");
    ASSERT_NE(at, std::string::npos);
    renamed.replace(at, 19, "MobilenetV1/Conv2d_8");
    expectRefused(Detector::create(networkOptions(write(renamed, weights_))), ErrorKind::File,
                  "MobilenetV1/Conv2d_7_depthwise/depthwise_weights", "renamed tensor");

    // Neither a folder nor a pipe stands in for the weights; a pipe is never waited on.
    std::filesystem::remove(dir_ / kWeightsFile);
    std::filesystem::create_directory(dir_ / kWeightsFile);
    expectRefused(Detector::create(networkOptions(dir_.path())), ErrorKind::File,
                  "not a regular file", "folder");
    std::filesystem::remove(dir_ / kWeightsFile);
    ASSERT_EQ(::mkfifo((dir_ / kWeightsFile).c_str(), 0600), 0);
    expectRefused(Detector::create(networkOptions(dir_.path())), ErrorKind::File,
                  "not a regular file", "pipe");
}

}  // namespace

#endif  // MSMFACE_HAVE_DESCRIPTOR
