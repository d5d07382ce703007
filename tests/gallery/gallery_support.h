// Synthetic persons for the gallery tests: takes of camera frames rendered with their exact
// points, handed to the library as the frame views and samples a host would pass.
#ifndef MSMFACE_TESTS_GALLERY_GALLERY_SUPPORT_H
#define MSMFACE_TESTS_GALLERY_GALLERY_SUPPORT_H

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msmface/gallery.h>

#include "common/scratch_dir.h"
#include "synth/synth_face.h"

namespace gallerytest {

using msmtest::ScratchDir;

constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr uint32_t kPopulation = 7;

// One take of a person: frames that stay alive as long as the take, and their samples.
struct Take {
    std::vector<msmsynth::SynthFrame> frames;

    msmface::FrameView view(std::size_t k) const {
        msmface::FrameView v;
        v.data = frames[k].pixels.data();
        v.width = frames[k].width;
        v.height = frames[k].height;
        return v;
    }
    msmface::FacePoints points(std::size_t k) const {
        msmface::FacePoints p;
        std::copy(frames[k].points.begin(), frames[k].points.end(), p.xy.begin());
        return p;
    }
    std::vector<msmface::Sample> samples(bool withPoints = true) const {
        std::vector<msmface::Sample> out;
        for (std::size_t k = 0; k < frames.size(); ++k) {
            msmface::Sample s;
            s.frame = view(k);
            if (withPoints) s.points = points(k);
            out.push_back(s);
        }
        return out;
    }
};

// Frames first .. first + count - 1 of take `take` of person `index`: a fresh take of the same
// person is what a camera sees when the person comes back.
inline Take MakeTake(int index, uint32_t take, int count, int first = 0) {
    const msmsynth::SynthPerson person = msmsynth::makePerson(kPopulation, index);
    Take t;
    const std::vector<msmsynth::SynthPose> poses =
        msmsynth::makeSequence(take, first + count, kWidth, kHeight);
    for (std::size_t k = static_cast<std::size_t>(first); k < poses.size(); ++k)
        t.frames.push_back(msmsynth::renderFrame(person, poses[k], kWidth, kHeight));
    return t;
}

// The takes every test shares: enrolment and probe frames of four persons, rendered once.
struct Population {
    static constexpr int kPersons = 4;
    static constexpr int kEnrolFrames = 50;
    static constexpr int kProbeFrames = 20;
    std::vector<Take> enrol, probe;

    Population() {
        for (int i = 0; i < kPersons; ++i) {
            enrol.push_back(MakeTake(i, 100 + i, kEnrolFrames));
            probe.push_back(MakeTake(i, 100 + i, kProbeFrames, kEnrolFrames));
        }
    }
    static const Population& get() {
        static const Population population;
        return population;
    }
    static std::string Name(int i) { return "person" + std::to_string(i + 1); }
};

inline std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline bool Exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

// Every entry of a folder with its bytes: two snapshots are equal when nothing changed.
inline std::vector<std::pair<std::string, std::string>> Snapshot(const std::string& dir) {
    std::vector<std::pair<std::string, std::string>> out;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") out.emplace_back(name, ReadText(dir + "/" + name));
        }
        ::closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

// A failure of this kind whose one-line message holds what.
inline void ExpectFailure(const msmface::Status& s, msmface::ErrorKind kind,
                          const std::string& what) {
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(s.kind(), kind) << s.message();
    EXPECT_THAT(s.message(), ::testing::HasSubstr(what));
    EXPECT_THAT(s.message(), ::testing::Not(::testing::HasSubstr("\n")));
}

inline std::vector<std::string> Names(const std::vector<msmface::Person>& persons) {
    std::vector<std::string> out;
    for (const msmface::Person& p : persons) out.push_back(std::to_string(p.id) + " " + p.name);
    return out;
}

inline msmface::Gallery OpenOrDie(const std::string& dir, bool create = false) {
    msmface::Result<msmface::Gallery> g = msmface::Gallery::open(dir, msmface::OpenOptions{create});
    EXPECT_TRUE(g.ok()) << g.message();
    if (!g.ok()) std::abort();
    return std::move(g).value();
}

// Enrols person i of the population under ID i + 1 from its enrolment take.
inline void EnrolOrDie(msmface::Gallery& g, int i) {
    const msmface::Status s =
        g.enrol(i + 1, Population::Name(i), Population::get().enrol[i].samples());
    ASSERT_TRUE(s.ok()) << s.message();
}

// The ID ranked first for person i's probe take, or -1.
inline int BestId(msmface::Gallery& g, int i, msmface::Method method) {
    const msmface::Result<msmface::Ranking> r =
        g.recognise(Population::get().probe[i].samples(), msmface::RecogniseOptions{method, -1});
    EXPECT_TRUE(r.ok()) << r.message();
    return r.ok() && !r->matches.empty() ? r->matches.front().id : -1;
}

}  // namespace gallerytest

#endif  // MSMFACE_TESTS_GALLERY_GALLERY_SUPPORT_H
