// Videos assembled from the real frames of the shared folder: clear faces of several persons cut
// out of their frames and pasted, moving a little, on a canvas, each shown for frames of its own.
// The tracker's and the watcher's tests share them.
#ifndef MSMFACE_TESTS_DETECT_ASSEMBLED_VIDEO_H
#define MSMFACE_TESTS_DETECT_ASSEMBLED_VIDEO_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "detect_support.h"

namespace detecttest {

// A person as the tests place them: a clear real face cut out of its frame (the face and a
// margin), and where its eyes' midpoint lies in the cut-out.
struct Person {
    std::string identity;
    std::string image;  // the manifest's frame it was cut from
    GreyFrame picture;
    double eyeX = 0, eyeY = 0;
    double eyeDistance = 0;
};

inline Person cutOut(const RealFace& face) {
    const double ex = (face.points[0] + face.points[2]) / 2,
                 ey = (face.points[1] + face.points[3]) / 2;
    const int width = std::min(face.frame.width, 150), height = std::min(face.frame.height, 170);
    const int left = std::clamp(static_cast<int>(ex) - width / 2, 0, face.frame.width - width);
    const int top = std::clamp(static_cast<int>(ey) - height / 3, 0, face.frame.height - height);
    Person p;
    p.identity = face.identity;
    p.image = face.image;
    p.picture.width = width;
    p.picture.height = height;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            p.picture.pixels.push_back(
                face.frame.pixels[static_cast<size_t>(top + y) * face.frame.width + left + x]);
    p.eyeX = ex - left;
    p.eyeY = ey - top;
    p.eyeDistance = face.eyeDistance();
    return p;
}

// The first count of six clear faces of six persons (found once: each search runs the detector
// on many frames).
inline std::vector<Person> persons(const std::vector<RealFace>& faces,
                                   const msmface::Detector& detector, size_t count) {
    static const std::vector<Person> six = [&] {
        std::vector<Person> out;
        std::set<std::string> taken;
        for (size_t from = 0; out.size() < 6;) {
            const RealFace* face = clearFace(faces, detector, from);
            if (face == nullptr) break;
            from = static_cast<size_t>(face - faces.data()) + 1;
            if (taken.insert(face->identity).second) out.push_back(cutOut(*face));
        }
        return out;
    }();
    return {six.begin(), six.begin() + std::min(count, six.size())};
}

// In a test: skips it without the model or the faces; else declares people, count persons.
#define SKIP_UNLESS_PERSONS(count)                                       \
    SKIP_WITHOUT_DETECTOR_OR_ALL_FACES();                                \
    const std::vector<Person> people = persons(faces, *detector, count); \
    ASSERT_EQ(people.size(), static_cast<size_t>(count))

// One person's appearance in a video: frames [first, last], in a column of the canvas.
struct Appearance {
    int person = 0;
    int first = 0, last = 0;
    double left = 0, top = 0, scale = 1;
    // The face covered by a patch of its own mean grey (a hand, a face turned away): the picture
    // keeps its light and layout but shows no face, so it has no place in Video::eyes.
    bool hidden = false;
};

struct Video {
    std::vector<GreyFrame> frames;
    // Where each person's eyes' midpoint was placed in each frame (absent: not shown).
    std::vector<std::map<int, std::pair<double, double>>> eyes;
};

// Persons moving a few pixels from frame to frame at their places; backdrop[t] is the canvas's
// grey in frame t (a new shot gets a new backdrop).
inline Video compose(const std::vector<Person>& people, const std::vector<Appearance>& shown,
                     int count, const std::function<unsigned char(int)>& backdrop, int width = 640,
                     int height = 480) {
    Video v;
    for (int t = 0; t < count; ++t) {
        GreyFrame f = canvas(width, height, backdrop(t));
        std::map<int, std::pair<double, double>> placedEyes;
        for (const Appearance& a : shown) {
            if (t < a.first || t > a.last) continue;
            const Person& p = people[a.person];
            const double left = a.left + 6 * std::sin(0.3 * t + a.person);
            const double top = a.top + 4 * std::cos(0.2 * t + a.person);
            paste(p.picture, a.scale, left, top, f);
            if (a.hidden) {
                const double x = placed(p.eyeX, a.scale, left), y = placed(p.eyeY, a.scale, top);
                const int half = static_cast<int>(1.4 * p.eyeDistance * a.scale);
                const int x0 = std::max(0, static_cast<int>(x) - half);
                const int x1 = std::min(f.width, static_cast<int>(x) + half);
                const int y0 = std::max(0, static_cast<int>(y) - half);
                const int y1 = std::min(f.height, static_cast<int>(y) + 2 * half);
                double sum = 0;
                for (int yy = y0; yy < y1; ++yy)
                    for (int xx = x0; xx < x1; ++xx)
                        sum += f.pixels[static_cast<size_t>(yy) * f.width + xx];
                const auto mean =
                    static_cast<unsigned char>(sum / std::max(1, (x1 - x0) * (y1 - y0)));
                for (int yy = y0; yy < y1; ++yy)
                    for (int xx = x0; xx < x1; ++xx)
                        f.pixels[static_cast<size_t>(yy) * f.width + xx] = mean;
                continue;
            }
            placedEyes[a.person] = {placed(p.eyeX, a.scale, left), placed(p.eyeY, a.scale, top)};
        }
        v.frames.push_back(std::move(f));
        v.eyes.push_back(std::move(placedEyes));
    }
    return v;
}

inline bool inside(const msmface::FaceBox& box, std::pair<double, double> p) {
    return p.first >= box.left && p.first < box.left + box.width && p.second >= box.top &&
           p.second < box.top + box.height;
}
}  // namespace detecttest

#endif  // MSMFACE_TESTS_DETECT_ASSEMBLED_VIDEO_H
