// The demo: made-up persons rendered by the synthetic face generator are enrolled, then a fresh
// take of each and of one stranger is recognised, and the faces the engine saw are drawn.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "canvas.h"
#include "commands.h"
#include "session.h"
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
    int truth;  // person index, or -1 for the stranger
    Recognition result;
    std::vector<unsigned char> face;
};

void drawPicture(const std::string& path, const std::vector<std::vector<unsigned char>>& enrolled,
                 const std::vector<ProbeOutcome>& probes, const Session& s) {
    const int columns = static_cast<int>(std::max(enrolled.size(), probes.size()));
    const int width = kGap + columns * (kTile + kGap);
    const int rowHeight = 14 + kTile + 22;
    Canvas c(width, 2 * rowHeight + 3 * kGap + 20);
    int y = kGap;
    c.text(kGap, y, "ENROLLED (50 FRAMES EACH)", kBlack, 2);
    y += 20;
    for (std::size_t i = 0; i < enrolled.size(); ++i) {
        const int x = kGap + static_cast<int>(i) * (kTile + kGap);
        if (!enrolled[i].empty()) c.grey(x, y, enrolled[i].data(), 64, 64, kFaceScale);
        c.text(x, y + kTile + 4, s.persons()[i].name, kBlack);
    }
    y += kTile + 22 + kGap;
    c.text(kGap, y, "PROBES: GREEN RIGHT, RED WRONG, GREY REJECTED", kBlack, 2);
    y += 20;
    for (std::size_t i = 0; i < probes.size(); ++i) {
        const ProbeOutcome& p = probes[i];
        const int x = kGap + static_cast<int>(i) * (kTile + kGap);
        if (!p.face.empty()) c.grey(x, y, p.face.data(), 64, 64, kFaceScale);
        const bool right = p.result.accepted && p.result.best == p.truth;
        const Colour border = !p.result.accepted ? kGrey : right ? kGreen : kRed;
        c.frame(x - 4, y - 4, kTile + 8, kTile + 8, 4, border);
        const std::string who = p.result.accepted ? s.persons()[p.result.best].name : "?";
        c.text(x, y + kTile + 6, who + " " + std::to_string(p.result.bestScore), border);
    }
    c.writePng(path);
}

}  // namespace

int runDemo(const DemoOptions& o) {
    if (o.persons < 2 || o.persons > 20) return fail("--persons: expected 2 to 20");
    const auto start = std::chrono::steady_clock::now();
    const std::string dictionary = o.out + "/dictionary";
    std::string error = makeFolder(dictionary);
    if (!error.empty()) return fail(error);
    clearFolder(dictionary);
    Session s;
    error = s.open(dictionary);
    if (!error.empty()) return fail(error);

    std::printf("enrolling %d synthetic persons from %d frames each into %s\n", o.persons,
                kEnrolFrames, dictionary.c_str());
    std::vector<std::vector<unsigned char>> enrolledFaces(o.persons);
    for (int i = 0; i < o.persons; ++i) {
        const msmsynth::SynthPerson person = msmsynth::makePerson(o.seed, i);
        const std::string name = "person" + std::to_string(i + 1);
        error = s.enrol(i + 1, name, takeOf(person, o.seed * 1000u + i, kEnrolFrames),
                        &enrolledFaces[i]);
        if (!error.empty()) return fail(error);
    }

    std::printf("\nrecognising a fresh take of %d frames of each, and of one stranger (MSM)\n",
                kProbeFrames);
    std::printf("probe       true       best       score  accepted\n");
    std::vector<ProbeOutcome> probes;
    int right = 0, wrong = 0, missed = 0;
    bool strangerRejected = false;
    for (int i = 0; i <= o.persons; ++i) {
        const bool stranger = i == o.persons;
        const msmsynth::SynthPerson person = msmsynth::makePerson(o.seed, i);
        ProbeOutcome p{stranger ? -1 : i, {}, {}};
        error = s.recognise(takeOf(person, o.seed * 1000u + 500u + i, kProbeFrames), kMethodMsm,
                            p.result, &p.face);
        if (!error.empty()) return fail(error);
        const std::string truth = stranger ? "stranger" : s.persons()[i].name;
        const std::string best = s.persons()[p.result.best].name;
        std::printf("%-11s %-10s %-10s %5d  %s\n", ("probe" + std::to_string(i + 1)).c_str(),
                    truth.c_str(), best.c_str(), p.result.bestScore,
                    p.result.accepted ? "yes" : "no");
        if (stranger)
            strangerRejected = !p.result.accepted;
        else if (!p.result.accepted)
            ++missed;
        else if (p.result.best == i)
            ++right;
        else
            ++wrong;
        probes.push_back(std::move(p));
    }
    const std::string picture = o.out + "/demo.png";
    drawPicture(picture, enrolledFaces, probes, s);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf(
        "\nsummary: %d of %d enrolled persons identified, %d confused, %d rejected; "
        "the stranger was %s (threshold %d)\n",
        right, o.persons, wrong, missed, strangerRejected ? "rejected" : "accepted",
        s.engine().Get_Identify_thresvalue());
    std::printf("picture: %s; %.1f s\n", picture.c_str(), seconds);
    return 0;
}

}  // namespace msmcli
