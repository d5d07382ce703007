// Patterns of real faces: two frames of one video must look more alike than two people.
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/pgm.h"
#include "normalise/face_cropping.h"
#include "normalise/filter_processing.h"

namespace {

struct Frame {
    std::string identity;
    int video = 0;
    std::vector<float> pattern;  // the 32 x 32 map, unit length
};

std::vector<Frame> LoadFaces(const std::string& folder) {
    std::vector<Frame> frames;
    std::ifstream manifest(folder + "/manifest.csv");
    std::string line;
    std::getline(manifest, line);  // header
    FaceShapeModel model;
    CFilterProcessing filters;
    while (std::getline(manifest, line)) {
        std::vector<std::string> f;
        std::stringstream fields(line);
        for (std::string x; std::getline(fields, x, ',');) f.push_back(x);
        if (f.size() != 35) continue;
        int width = 0, height = 0;
        std::vector<unsigned char> pixels;
        if (!msmtest::ReadPgm(folder + "/" + f[4], width, height, pixels)) continue;
        PartsPosition parts{};
        for (int k = 0; k < 28; ++k)
            parts.points[k] = static_cast<int32_t>(std::lround(std::atof(f[7 + k].c_str())));
        unsigned char face[64 * 64];
        if (NormaliseFace(&model, width, height, pixels.data(), &parts, face) != 1) continue;
        Frame frame;
        frame.identity = f[0];
        frame.video = std::atoi(f[1].c_str());
        frame.pattern.resize(1024);
        filters.MakePatternMap(face, frame.pattern.data());
        frames.push_back(std::move(frame));
    }
    return frames;
}

float Similarity(const Frame& a, const Frame& b) {
    float s = 0;
    for (int i = 0; i < 1024; ++i) s += a.pattern[i] * b.pattern[i];
    return s;
}

TEST(RealFaces, FramesOfOneVideoAreCloserThanDifferentPeople) {
    const std::string folder = std::string(MSMFACE_SHARED_DIR) + "/faces";
    std::ifstream probe(folder + "/manifest.csv");
    if (!probe) GTEST_SKIP() << "no face data at " << folder;
    const std::vector<Frame> frames = LoadFaces(folder);
    ASSERT_GT(frames.size(), 200u) << "most frames of " << folder << " should load";

    std::map<std::string, std::vector<const Frame*>> byPerson;
    for (const Frame& f : frames) byPerson[f.identity].push_back(&f);
    std::vector<std::string> persons;
    for (const auto& p : byPerson) persons.push_back(p.first);

    double sameSum = 0, otherSum = 0;
    int personsCloser = 0, personsCounted = 0;
    for (size_t p = 0; p < persons.size(); ++p) {
        const auto& mine = byPerson[persons[p]];
        const auto& theirs = byPerson[persons[(p + 1) % persons.size()]];
        double same = 0, other = 0;
        int sameCount = 0, otherCount = 0;
        for (size_t i = 0; i < mine.size(); ++i) {
            for (size_t j = i + 1; j < mine.size(); ++j)
                if (mine[i]->video == mine[j]->video)
                    same += Similarity(*mine[i], *mine[j]), ++sameCount;
            for (const Frame* t : theirs) other += Similarity(*mine[i], *t), ++otherCount;
        }
        if (sameCount == 0 || otherCount == 0) continue;
        same /= sameCount;
        other /= otherCount;
        sameSum += same;
        otherSum += other;
        personsCloser += same > other;
        ++personsCounted;
    }
    ASSERT_GT(personsCounted, 50);
    const double meanSame = sameSum / personsCounted, meanOther = otherSum / personsCounted;
    std::printf("mean similarity: same video %.3f, different people %.3f; closer for %d of %d\n",
                meanSame, meanOther, personsCloser, personsCounted);
    EXPECT_GT(meanSame, meanOther + 0.1);
    EXPECT_GT(personsCloser, personsCounted * 9 / 10);
}

}  // namespace
