// The demo: made-up persons rendered by the synthetic face generator are enrolled, then a fresh
// take of each and of one stranger is recognised, and the faces the engine saw are drawn.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <msmface/msmface.h>
#include <opencv2/imgproc.hpp>

#include "commands/commands.h"
#include "input/frames.h"
#include "input/image_io.h"
#include "synth/synth_face.h"

namespace msmcli {
namespace {

constexpr int kFrameWidth = 320;
constexpr int kFrameHeight = 240;
constexpr int kEnrolFrames = 50;
constexpr int kProbeFrames = 20;
constexpr int kFaceScale = 2;
constexpr int kTile = 64 * kFaceScale;
constexpr int kGap = 12;

std::vector<Frame> takeOf(const msmsynth::SynthPerson& person, uint32_t seed, int count) {
    std::vector<Frame> frames;
    for (const msmsynth::SynthPose& pose :
         msmsynth::makeSequence(seed, count, kFrameWidth, kFrameHeight)) {
        msmsynth::SynthFrame f = msmsynth::renderFrame(person, pose, kFrameWidth, kFrameHeight);
        if (!f.valid()) continue;
        auto image = std::make_shared<GreyImage>();
        image->width = f.width;
        image->height = f.height;
        image->pixels = std::move(f.pixels);
        Frame frame;
        frame.image = image;
        for (int k = 0; k < 28; ++k) frame.points[k] = f.points[k];
        frames.push_back(std::move(frame));
    }
    return frames;
}

struct ProbeOutcome {
    int truth;  // person ID, or -1 for the stranger
    msmface::Match best;
    bool accepted;  // best score above the threshold
    std::vector<unsigned char> face;
};

// OpenCV's colours are blue, green, red.
const cv::Scalar kInk(0, 0, 0);
const cv::Scalar kRejected(160, 160, 160);
const cv::Scalar kRight(50, 150, 30);
const cv::Scalar kWrong(40, 40, 200);

void label(cv::Mat& picture, int x, int y, const std::string& text, const cv::Scalar& colour,
           double scale = 0.4) {
    cv::putText(picture, text, cv::Point(x, y), cv::FONT_HERSHEY_SIMPLEX, scale, colour, 1,
                cv::LINE_AA);
}

void placeFace(cv::Mat& picture, int x, int y, const std::vector<unsigned char>& face) {
    if (face.size() != 64u * 64u) return;
    const cv::Mat grey(64, 64, CV_8UC1, const_cast<unsigned char*>(face.data()));
    cv::Mat big, bgr;
    cv::resize(grey, big, cv::Size(kTile, kTile), 0, 0, cv::INTER_NEAREST);
    cv::cvtColor(big, bgr, cv::COLOR_GRAY2BGR);
    bgr.copyTo(picture(cv::Rect(x, y, kTile, kTile)));
}

std::string drawPicture(const std::string& path,
                        const std::vector<std::vector<unsigned char>>& enrolled,
                        const std::vector<ProbeOutcome>& probes,
                        const std::vector<msmface::Person>& persons) {
    const int columns = static_cast<int>(std::max(enrolled.size(), probes.size()));
    const int width = kGap + columns * (kTile + kGap);
    const int rowHeight = 22 + kTile + 22;
    cv::Mat picture(2 * rowHeight + 3 * kGap, width, CV_8UC3, cv::Scalar(255, 255, 255));
    int y = kGap;
    label(picture, kGap, y + 12, "Enrolled (50 frames each)", kInk, 0.5);
    y += 22;
    for (std::size_t i = 0; i < enrolled.size(); ++i) {
        const int x = kGap + static_cast<int>(i) * (kTile + kGap);
        placeFace(picture, x, y, enrolled[i]);
        label(picture, x, y + kTile + 14, persons[i].name, kInk);
    }
    y += kTile + 22 + kGap;
    label(picture, kGap, y + 12, "Probes: green right, red wrong, grey rejected", kInk, 0.5);
    y += 22;
    for (std::size_t i = 0; i < probes.size(); ++i) {
        const ProbeOutcome& p = probes[i];
        const int x = kGap + static_cast<int>(i) * (kTile + kGap);
        placeFace(picture, x, y, p.face);
        const bool right = p.accepted && p.best.id == p.truth;
        const cv::Scalar border = !p.accepted ? kRejected : right ? kRight : kWrong;
        cv::rectangle(picture, cv::Rect(x - 3, y - 3, kTile + 6, kTile + 6), border, 3);
        const std::string who = p.accepted ? p.best.name : "?";
        label(picture, x, y + kTile + 16, who + " " + std::to_string(p.best.score), border);
    }
    return writePicture(path, picture);
}

}  // namespace

int runDemo(const DemoOptions& o) {
    if (o.persons < 2 || o.persons > 20) return fail("--persons: expected 2 to 20");
    const auto start = std::chrono::steady_clock::now();
    const std::string dictionary = o.out + "/dictionary";
    std::string error = prepareRunDictionary(o.out, "demo");
    if (!error.empty()) return fail(error);
    auto opened = msmface::Gallery::open(dictionary);
    if (!opened.ok()) return fail(opened.message());
    msmface::Gallery& g = opened.value();

    std::printf("enrolling %d synthetic persons from %d frames each into %s\n", o.persons,
                kEnrolFrames, dictionary.c_str());
    std::vector<std::vector<unsigned char>> enrolledFaces(o.persons);
    for (int i = 0; i < o.persons; ++i) {
        const msmsynth::SynthPerson person = msmsynth::makePerson(o.seed, i);
        const std::string name = "person" + std::to_string(i + 1);
        const std::vector<Frame> frames = takeOf(person, o.seed * 1000u + i, kEnrolFrames);
        const msmface::Status enrolled = g.enrol(i + 1, name, samplesOf(frames));
        if (!enrolled.ok()) return fail(enrolled.message());
        enrolledFaces[i] = firstNormalisedFace(frames);
    }

    std::printf("\nrecognising a fresh take of %d frames of each, and of one stranger (MSM)\n",
                kProbeFrames);
    std::printf("probe       true       best       score  accepted\n");
    const std::vector<msmface::Person> persons = g.persons();
    std::vector<ProbeOutcome> probes;
    int right = 0, wrong = 0, missed = 0;
    bool strangerRejected = false;
    for (int i = 0; i <= o.persons; ++i) {
        const bool stranger = i == o.persons;
        const msmsynth::SynthPerson person = msmsynth::makePerson(o.seed, i);
        const std::vector<Frame> frames = takeOf(person, o.seed * 1000u + 500u + i, kProbeFrames);
        const auto r = g.recognise(samplesOf(frames), {msmface::Method::Msm, -1});
        if (!r.ok()) return fail(r.message());
        ProbeOutcome p{stranger ? -1 : i + 1, r->matches.front(), r->identified.has_value(),
                       firstNormalisedFace(frames)};
        const std::string truth = stranger ? "stranger" : persons[i].name;
        std::printf("%-11s %-10s %-10s %5d  %s\n", ("probe" + std::to_string(i + 1)).c_str(),
                    truth.c_str(), p.best.name.c_str(), p.best.score, p.accepted ? "yes" : "no");
        if (stranger)
            strangerRejected = !p.accepted;
        else if (!p.accepted)
            ++missed;
        else if (p.best.id == i + 1)
            ++right;
        else
            ++wrong;
        probes.push_back(std::move(p));
    }
    const std::string picture = o.out + "/demo.png";
    error = drawPicture(picture, enrolledFaces, probes, persons);
    if (error.empty()) error = recordRunDictionary(o.out, "demo");
    if (!error.empty()) return fail(error);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf(
        "\nsummary: %d of %d enrolled persons identified, %d confused, %d rejected; "
        "the stranger was %s (threshold %d)\n",
        right, o.persons, wrong, missed, strangerRejected ? "rejected" : "accepted", g.threshold());
    std::printf("picture: %s; %.1f s\n", picture.c_str(), seconds);
    return 0;
}

}  // namespace msmcli
