// The descriptor finder a host uses alone: pixels in, the descriptor of the most prominent face
// out, or no face.
#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <msmface/descriptor.h>

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <set>

#include "detect_support.h"

namespace {

using msmface::FaceDescriptor;

using detecttest::cosine;

// A describer over the shared detector; null (with the reason) when a model is missing.
std::shared_ptr<msmface::FaceDescriber> describer(int redetectEvery, std::string& missing) {
    const msmface::Detector* detector = detecttest::sharedDetector();
    if (detector == nullptr) {
        missing = "no landmark model";
        return nullptr;
    }
    auto descriptor = msmface::Descriptor::load();
    if (!descriptor) {
        missing = descriptor.message();
        return nullptr;
    }
    return std::make_shared<msmface::FaceDescriber>(*detector, std::move(descriptor).value(),
                                                    msmface::FollowerOptions{redetectEvery});
}

#define REQUIRE_DESCRIBER(name, redetectEvery)        \
    std::string missing;                              \
    auto name = describer(redetectEvery, missing);    \
    if (!name) GTEST_SKIP() << missing;               \
    const auto faces = detecttest::loadRealFaces(40); \
    if (faces.empty()) GTEST_SKIP() << "no real faces in " << detecttest::facesFolder()

// Pictures described afresh each: the detector's first face and the descriptor of its chip, the
// same values as the two steps called by hand; a face found whose chip would be too small to
// describe is a face without a descriptor, and no face to the finder's interface.
TEST(FaceDescriber, DescribesTheFaceTheDetectorFindsFirst) {
    REQUIRE_DESCRIBER(finder, 1);
    auto descriptor = msmface::Descriptor::load();
    ASSERT_TRUE(descriptor.ok()) << descriptor.message();
    const msmface::Detector& detector = *detecttest::sharedDetector();
    int described = 0, tooSmall = 0;
    std::set<std::string> persons;
    for (const auto& face : faces) {
        const auto found = detector.detect(face.frame.view());
        ASSERT_TRUE(found.ok()) << found.message();
        const auto expected = found->empty()
                                  ? msmface::Result<FaceDescriptor>(msmface::Status::failure(
                                        msmface::ErrorKind::NotFound, "no face"))
                                  : descriptor->compute(face.frame.view(), found->front());
        msmface::DetectedFace got;
        std::optional<FaceDescriptor> d;
        ASSERT_EQ(finder->describe(face.frame.view(), got, d), !found->empty()) << face.image;
        const bool ok = d.has_value();
        ASSERT_EQ(ok, expected.ok()) << face.image << ": " << expected.message();
        if (!found->empty()) {
            EXPECT_EQ(got.landmarks, found->front().landmarks) << face.image;
        }
        tooSmall += !found->empty() && !ok;
        // The interface a gallery calls gives the same, and a face it cannot describe is none.
        FaceDescriptor viaFinder{};
        msmface::DescriptorFinder& asFinder = *finder;
        ASSERT_EQ(asFinder.findDescriptor(face.frame.view(), viaFinder), ok) << face.image;
        if (!ok) continue;
        EXPECT_EQ(*d, *expected) << face.image;
        EXPECT_EQ(viaFinder, *d);
        ++described;
        persons.insert(face.identity);
    }
    // The sample is real faces of many persons, nearly all described; the smallest faces the
    // doubled search finds are not.
    EXPECT_GE(described, static_cast<int>(faces.size()) - 3) << "of " << faces.size();
    EXPECT_GE(tooSmall, 1);
    EXPECT_GE(persons.size(), 20u);
}

// A face followed through a video keeps its descriptor within what one person's frames differ
// by; a frame without a face, or a view that is no frame, is no face.
TEST(FaceDescriber, FollowsAFaceAndSaysWhenThereIsNone) {
    REQUIRE_DESCRIBER(finder, 10);
    const detecttest::RealFace& face = faces.front();
    // A camera frame with the face pasted at twice its size, the same frame several times: the
    // followed frames' landmarks come from the near search, not from the first detection.
    detecttest::GreyFrame frame = detecttest::canvas(640, 480);
    detecttest::paste(face.frame, 2.0, 100, 20, frame);
    std::optional<FaceDescriptor> first, later;
    msmface::DetectedFace found;
    ASSERT_TRUE(finder->describe(frame.view(), found, first));
    ASSERT_TRUE(first.has_value());
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(finder->describe(frame.view(), found, later)) << "frame " << i + 1;
        ASSERT_TRUE(later.has_value());
        EXPECT_GT(cosine(*first, *later), 0.98) << "frame " << i + 1;
    }
    // An empty frame: no face, and the finder starts afresh.
    const detecttest::GreyFrame empty = detecttest::canvas(640, 480);
    FaceDescriptor none{};
    none.fill(7.0f);
    EXPECT_FALSE(finder->findDescriptor(empty.view(), none));
    // A bad view is no face either, never a crash.
    EXPECT_FALSE(finder->findDescriptor(
        msmface::FrameView{nullptr, 640, 480, 0, msmface::PixelFormat::Grey}, none));
    finder->reset();
    FaceDescriptor afresh{};
    ASSERT_TRUE(finder->findDescriptor(frame.view(), afresh));
    EXPECT_EQ(afresh, *first);  // afresh: the same detection as the first frame's
}

}  // namespace
#endif
