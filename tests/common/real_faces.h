// The shared folder of real faces: every frame of its manifest with its fourteen points, grouped
// by person. Tests that use it skip themselves when the folder is absent.
#ifndef MSMFACE_TESTS_COMMON_REAL_FACES_H
#define MSMFACE_TESTS_COMMON_REAL_FACES_H

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/pgm.h"

namespace msmtest {

struct RealFrame {
    int video = 0;
    int width = 0, height = 0;
    std::vector<unsigned char> pixels;
    double points[28] = {};
};

inline std::map<std::string, std::vector<RealFrame>> LoadPeople(const std::string& folder) {
    std::map<std::string, std::vector<RealFrame>> people;
    std::ifstream manifest(folder + "/manifest.csv");
    std::string line;
    std::getline(manifest, line);
    while (std::getline(manifest, line)) {
        std::vector<std::string> f;
        std::stringstream fields(line);
        for (std::string x; std::getline(fields, x, ',');) f.push_back(x);
        if (f.size() != 35) continue;
        RealFrame frame;
        frame.video = std::atoi(f[1].c_str());
        for (int k = 0; k < 28; ++k) frame.points[k] = std::atof(f[7 + k].c_str());
        if (ReadPgm(folder + "/" + f[4], frame.width, frame.height, frame.pixels))
            people[f[0]].push_back(std::move(frame));
    }
    return people;
}

// A person's frames of the first two videos (to enrol from) and of the third (to probe with);
// false for a person of fewer than three videos.
inline bool SplitThreeVideos(const std::vector<RealFrame>& frames,
                             std::vector<const RealFrame*>& enrol,
                             std::vector<const RealFrame*>& probe) {
    std::set<int> videos;
    for (const RealFrame& f : frames) videos.insert(f.video);
    if (videos.size() < 3) return false;
    auto v = videos.begin();
    const int a = *v++, b = *v++, c = *v;
    for (const RealFrame& f : frames) {
        if (f.video == a || f.video == b) enrol.push_back(&f);
        if (f.video == c) probe.push_back(&f);
    }
    return true;
}

}  // namespace msmtest

#endif  // MSMFACE_TESTS_COMMON_REAL_FACES_H
