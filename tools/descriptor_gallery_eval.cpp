// The descriptor table (descriptor_table's output) through a real gallery of descriptors, split
// as `msmface eval` splits a manifest (videos numbered, as the shared faces' are): every person
// enrolled from all but the last video (the enrolment frames offered 60 times, cycled), probed with
// the last (15 frames, cycled), by MSM. It checks that tools/descriptor_study.py's emulation of the
// subspace method matches what the engine does, and measures the descriptor centre end to end: with
// --centre every descriptor has msm::kDescriptorCentre taken away before the gallery sees it.
//
// usage: descriptor_gallery_eval <table.csv> <scratch folder> [--centre]
//
// Prints rank-1, EER and its threshold, and the threshold and true-accept rate at 1 % false
// accepts, with eval's own figures.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <msmface/gallery.h>
#include <msmface/jitter.h>

#include "data/descriptor_centre.h"
#include "evaluation/eval_metrics.h"

namespace {

int fail(const std::string& message) {
    std::fprintf(stderr, "descriptor_gallery_eval: %s\n", message.c_str());
    return 1;
}

// A person's videos by number (the manifest numbers them), so that video 10 comes after 9.
using Videos = std::map<long, std::vector<msmface::FaceDescriptor>>;

struct Person {
    std::string identity;
    Videos videos;
};

// The table's persons in their order; empty with error set when a line does not parse.
std::vector<Person> readTable(const std::string& path, bool centre, std::string& error) {
    std::ifstream in(path);
    std::string line;
    if (!std::getline(in, line) || line.rfind("identity,video,split,image,status", 0) != 0) {
        error = path + ": expected descriptor_table's header";
        return {};
    }
    std::vector<Person> persons;
    std::map<std::string, std::size_t> index;
    for (int number = 2; std::getline(in, line); ++number) {
        std::vector<std::string> fields;
        std::stringstream ss(line);
        for (std::string f; std::getline(ss, f, ',');) fields.push_back(f);
        if (fields.size() < 5) {
            error = path + ": line " + std::to_string(number) +
                    ": expected identity, video, split, image and status, found " +
                    std::to_string(fields.size()) + " fields";
            return {};
        }
        char* end = nullptr;
        const long video = std::strtol(fields[1].c_str(), &end, 10);
        if (fields[1].empty() || *end != '\0') {
            error = path + ": line " + std::to_string(number) +
                    ": expected a video number, found \"" + fields[1] + "\"";
            return {};
        }
        auto [at, added] = index.emplace(fields[0], persons.size());
        if (added) persons.push_back(Person{fields[0], {}});
        auto& frames = persons[at->second].videos[video];
        if (fields[4] != "ok") continue;
        if (fields.size() != 5 + msmface::kDescriptorSize) {
            error = path + ": line " + std::to_string(number) + ": expected " +
                    std::to_string(msmface::kDescriptorSize) + " values after \"ok\"";
            return {};
        }
        msmface::FaceDescriptor d{};
        for (int k = 0; k < msmface::kDescriptorSize; ++k) {
            d[k] = std::strtof(fields[5 + k].c_str(), nullptr);
            if (centre) d[k] -= msm::kDescriptorCentre[k];
        }
        frames.push_back(d);
    }
    return persons;
}

std::vector<msmface::Sample> samplesOf(const std::vector<msmface::FaceDescriptor>& descriptors) {
    std::vector<msmface::Sample> out(descriptors.size());
    for (std::size_t i = 0; i < descriptors.size(); ++i) out[i].descriptor = descriptors[i];
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    bool centre = false, onePhoto = false;
    for (int i = 3; i < argc; ++i) {
        if (std::strcmp(argv[i], "--centre") == 0)
            centre = true;
        else if (std::strcmp(argv[i], "--one-photo") == 0)
            onePhoto = true;
        else
            return fail(std::string(argv[i]) + ": expected --centre or --one-photo");
    }
    if (argc < 3)
        return fail(
            "usage: descriptor_gallery_eval <table.csv> <scratch folder> [--centre] "
            "[--one-photo]");
    std::string error;
    const std::vector<Person> persons = readTable(argv[1], centre, error);
    if (!error.empty()) return fail(error);

    msmface::OpenOptions options;
    options.create = true;
    options.patterns = msmface::PatternKind::Descriptor;
    auto gallery = msmface::Gallery::open(std::string(argv[2]) + "/dictionary", options);
    if (!gallery.ok()) return fail(gallery.message());
    if (!gallery->persons().empty()) return fail(std::string(argv[2]) + ": expected a new folder");

    // Enrol every person with two or more videos and faces on both sides.
    std::vector<std::vector<msmface::Sample>> probes;
    std::vector<int> ids;
    for (std::size_t i = 0; i < persons.size(); ++i) {
        const Person& p = persons[i];
        if (p.videos.size() < 2) continue;
        std::vector<msmface::FaceDescriptor> enrol;
        for (auto it = p.videos.begin(); std::next(it) != p.videos.end(); ++it)
            enrol.insert(enrol.end(), it->second.begin(), it->second.end());
        const auto& probe = std::prev(p.videos.end())->second;
        if (enrol.empty() || probe.empty()) continue;
        if (onePhoto) enrol.resize(1);
        const auto offered = msmface::offerFrames(samplesOf(enrol), 60, 0.0, 1000u + i);
        const auto probed = msmface::offerFrames(samplesOf(probe), 15, 0.0, 8777u + i);
        if (!offered.ok() || !probed.ok())
            return fail(offered.ok() ? probed.message() : offered.message());
        const int id = static_cast<int>(i) + 1;
        const msmface::Status enrolled = gallery->enrol(id, "p" + std::to_string(id), *offered);
        if (!enrolled.ok()) return fail(p.identity + ": " + enrolled.message());
        ids.push_back(id);
        probes.push_back(*probed);
    }

    std::vector<msmcli::ProbeScores> all;
    for (std::size_t i = 0; i < probes.size(); ++i) {
        const auto ranking = gallery->recognise(probes[i], {msmface::Method::Msm, 0});
        if (!ranking.ok()) return fail(ranking.message());
        msmcli::ProbeScores s;
        s.truth = static_cast<int>(i);
        s.scores.assign(ids.size(), -1);
        for (const msmface::Match& m : ranking->matches)
            for (std::size_t c = 0; c < ids.size(); ++c)
                if (ids[c] == m.id) s.scores[c] = m.score;
        all.push_back(std::move(s));
    }
    const msmcli::Figures f = msmcli::computeFigures(all, 0);
    std::printf(
        "%s%s%d probes: rank-1 %.1f %% (%d), rank-5 %.1f %%, EER %.2f %% at %d, 1 %% FAR at %d "
        "(TAR %.1f %%)\n",
        centre ? "centred: " : "", onePhoto ? "one photo: " : "", f.probes, 100 * f.rank1,
        static_cast<int>(f.rank1 * f.probes + 0.5), 100 * f.rank5, 100 * f.eer, f.eerThreshold,
        f.atFar1.threshold, 100 * f.atFar1.trueAccept);
    return 0;
}
