// A gallery of descriptors over real faces: persons enrolled from the descriptors of some of their
// videos are told apart on the frames of another, in one call and in a stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <msmface/descriptor.h>
#include <msmface/gallery.h>

#include "common/scratch_dir.h"
#include "detect_support.h"

namespace {

using msmface::FaceDescriptor;

constexpr std::size_t kPersons = 3;
constexpr std::size_t kEnrolFrames = 4;

// The video of a frame named ".../<split>_v<video>f<frame>.pgm".
int videoOf(const std::string& image) {
    const std::size_t at = image.rfind("_v");
    return at == std::string::npos ? -1 : std::atoi(image.c_str() + at + 2);
}

struct PersonFaces {
    int lastVideo = -1;
    std::vector<FaceDescriptor> enrol, probe;  // from the other videos, from the last
};

TEST(DescriptorGalleryRealFaces, EachPersonIsRankedFirstOnFramesOfAnotherVideo) {
    const msmface::Detector* detector = detecttest::sharedDetector();
    if (detector == nullptr) GTEST_SKIP() << "no landmark model";
    auto loaded = msmface::Descriptor::load();
    if (!loaded.ok()) GTEST_SKIP() << loaded.message();
    const auto faces = detecttest::loadRealFaces(1);
    if (faces.empty()) GTEST_SKIP() << "no real faces in " << detecttest::facesFolder();

    // As msmface eval splits: a person's last video is probed, the others are enrolled.
    std::map<std::string, PersonFaces> byPerson;
    for (const auto& face : faces) {
        if (byPerson.size() >= kPersons && byPerson.count(face.identity) == 0) continue;
        PersonFaces& mine = byPerson[face.identity];
        mine.lastVideo = std::max(mine.lastVideo, videoOf(face.image));
    }
    for (const auto& face : faces) {
        const auto person = byPerson.find(face.identity);
        if (person == byPerson.end()) continue;
        const bool probe = videoOf(face.image) == person->second.lastVideo;
        std::vector<FaceDescriptor>& side = probe ? person->second.probe : person->second.enrol;
        if (!probe && side.size() >= kEnrolFrames) continue;
        const auto found = detector->detect(face.frame.view());
        ASSERT_TRUE(found.ok()) << found.message();
        if (found->empty()) continue;
        const auto d = loaded->compute(face.frame.view(), found->front());
        if (d.ok()) side.push_back(*d);
    }
    msmtest::ScratchDir work;
    msmface::OpenOptions options;
    options.create = true;
    options.patterns = msmface::PatternKind::Descriptor;
    auto gallery = msmface::Gallery::open(work / "real", options);
    ASSERT_TRUE(gallery.ok()) << gallery.message();
    std::vector<const PersonFaces*> enrolled;
    for (const auto& [name, person] : byPerson) {
        if (person.enrol.empty() || person.probe.empty()) continue;
        std::vector<msmface::Sample> samples;
        for (const FaceDescriptor& d : person.enrol) samples.push_back({{}, {}, d});
        const int id = static_cast<int>(enrolled.size()) + 1;
        const msmface::Status s = gallery->enrol(id, name, samples);
        ASSERT_TRUE(s.ok()) << s.message();
        enrolled.push_back(&person);
    }
    ASSERT_EQ(enrolled.size(), kPersons);
    for (std::size_t i = 0; i < enrolled.size(); ++i) {
        std::vector<msmface::Sample> probe;
        for (const FaceDescriptor& d : enrolled[i]->probe) probe.push_back({{}, {}, d});
        for (msmface::Method m : {msmface::Method::Msm, msmface::Method::SinglePattern}) {
            const auto r = gallery->recognise(probe, {m, -1});
            ASSERT_TRUE(r.ok()) << r.message();
            EXPECT_EQ(r->matches.front().id, static_cast<int>(i) + 1)
                << "method " << static_cast<int>(m);
        }
        auto stream = msmface::Stream::create(*gallery);
        ASSERT_TRUE(stream.ok()) << stream.message();
        msmface::StreamState state;
        for (const FaceDescriptor& d : enrolled[i]->probe) state = stream->push(d).value();
        ASSERT_FALSE(state.ranking.matches.empty());
        EXPECT_EQ(state.ranking.matches.front().id, static_cast<int>(i) + 1);
    }
}

}  // namespace
