// Evaluation on a manifest of real faces: every person with two or more videos is enrolled from
// all of them but the last and probed with the last, by the single-pattern method, MSM and CMSM.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "canvas.h"
#include "commands.h"
#include "eval_metrics.h"
#include "frame_source.h"
#include "progress.h"
#include "session.h"

namespace msmcli {
namespace {

struct EvalPerson {
    std::string identity;
    std::vector<FrameRow> enrolRows;
    std::vector<FrameRow> probeRows;
};

struct MethodRun {
    int method;
    const char* name;
    Colour colour;
    std::vector<ProbeScores> probes;
    Figures figures;
};

// Videos ordered as numbers when they are numbers, so that video 10 comes after video 9.
bool videoBefore(const std::string& a, const std::string& b) {
    char* endA = nullptr;
    char* endB = nullptr;
    const long x = std::strtol(a.c_str(), &endA, 10), y = std::strtol(b.c_str(), &endB, 10);
    if (*endA == '\0' && *endB == '\0' && !a.empty() && !b.empty()) return x < y;
    return a < b;
}

std::vector<EvalPerson> splitByVideo(const std::vector<FrameRow>& rows, int& skipped) {
    std::vector<std::string> order;
    std::map<std::string, std::map<std::string, std::vector<FrameRow>,
                                   bool (*)(const std::string&, const std::string&)>>
        byPerson;
    for (const FrameRow& r : rows) {
        auto it = byPerson.find(r.identity);
        if (it == byPerson.end()) {
            order.push_back(r.identity);
            it = byPerson.emplace(r.identity, decltype(byPerson)::mapped_type(videoBefore)).first;
        }
        it->second[r.video].push_back(r);
    }
    std::vector<EvalPerson> persons;
    skipped = 0;
    for (const std::string& id : order) {
        auto& videos = byPerson.at(id);
        if (videos.size() < 2) {
            ++skipped;
            continue;
        }
        EvalPerson p;
        p.identity = id;
        for (auto it = videos.begin(); it != videos.end(); ++it) {
            auto& target = std::next(it) == videos.end() ? p.probeRows : p.enrolRows;
            target.insert(target.end(), it->second.begin(), it->second.end());
        }
        persons.push_back(std::move(p));
    }
    return persons;
}

std::string keyNameOf(const std::string& identity, int index) {
    std::string name;
    for (char c : identity)
        name += (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_') ? c : '_';
    name = name.substr(0, 48);
    return "p" + std::to_string(index + 1) + "_" + name;
}

int copiesFor(int available, int wanted) {
    return available <= 0 ? 1 : std::max(1, (wanted + available - 1) / available);
}

void drawRoc(Canvas& c, int left, int top, int size, const std::vector<MethodRun>& runs) {
    c.frame(left, top, size, size, 1, kBlack);
    for (int k = 1; k < 10; ++k) {
        const int at = size * k / 10;
        c.line(left + at, top, left + at, top + size - 1, Colour{230, 230, 230});
        c.line(left, top + at, left + size - 1, top + at, Colour{230, 230, 230});
    }
    c.line(left, top + size, left + size, top, kGrey);  // chance
    for (const MethodRun& r : runs) {
        const auto& roc = r.figures.roc;
        for (std::size_t i = 1; i < roc.size(); ++i)
            c.line(left + roc[i - 1].falseAccept * size, top + (1 - roc[i - 1].trueAccept) * size,
                   left + roc[i].falseAccept * size, top + (1 - roc[i].trueAccept) * size, r.colour,
                   2);
    }
    c.text(left, top + size + 8, "FALSE ACCEPT RATE 0 - 1", kBlack);
    c.text(left, top - 12, "ROC: TRUE ACCEPT RATE 0 - 1", kBlack);
}

void drawHistogram(Canvas& c, int left, int top, int w, int h, const MethodRun& r) {
    constexpr int kBins = 50;  // 20 score units each
    std::vector<double> g(kBins, 0.0), im(kBins, 0.0);
    auto binOf = [](int s) { return std::clamp(s / 20, 0, kBins - 1); };
    for (int s : r.figures.genuine)
        g[binOf(s)] += 1.0 / std::max<std::size_t>(1, r.figures.genuine.size());
    for (int s : r.figures.impostor)
        im[binOf(s)] += 1.0 / std::max<std::size_t>(1, r.figures.impostor.size());
    const double top1 =
        std::max(*std::max_element(g.begin(), g.end()), *std::max_element(im.begin(), im.end()));
    c.frame(left, top, w, h, 1, kBlack);
    const double bw = static_cast<double>(w) / kBins;
    for (int b = 0; b < kBins; ++b) {
        const int x = left + static_cast<int>(b * bw);
        const int hi = top1 > 0 ? static_cast<int>(im[b] / top1 * (h - 2)) : 0;
        const int hg = top1 > 0 ? static_cast<int>(g[b] / top1 * (h - 2)) : 0;
        c.fill(x + 1, top + h - 1 - hi, static_cast<int>(bw / 2), hi, kRed);
        c.fill(x + 1 + static_cast<int>(bw / 2), top + h - 1 - hg, static_cast<int>(bw / 2), hg,
               kGreen);
    }
    char label[96];
    std::snprintf(label, sizeof label, "%s: RANK-1 %.1f%%, EER %.1f%%", r.name,
                  100 * r.figures.rank1, 100 * r.figures.eer);
    c.text(left, top - 12, label, r.colour);
}

void drawPicture(const std::string& path, const std::vector<MethodRun>& runs) {
    constexpr int kRoc = 400, kHistW = 460, kHistH = 110, kMargin = 30;
    Canvas c(kMargin * 3 + kRoc + kHistW, kMargin * 2 + 3 * (kHistH + 30) + 20);
    drawRoc(c, kMargin, kMargin + 10, kRoc, runs);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        c.fill(kMargin + 10, kMargin + kRoc - 60 + static_cast<int>(i) * 14, 16, 4, runs[i].colour);
        c.text(kMargin + 32, kMargin + kRoc - 62 + static_cast<int>(i) * 14, runs[i].name,
               runs[i].colour);
        drawHistogram(c, 2 * kMargin + kRoc, kMargin + 10 + static_cast<int>(i) * (kHistH + 30),
                      kHistW, kHistH, runs[i]);
    }
    c.text(2 * kMargin + kRoc, kMargin + 10 + 3 * (kHistH + 30) - 14,
           "SCORE 0 - 1000: RED IMPOSTORS, GREEN GENUINE", kBlack);
    c.writePng(path);
}

}  // namespace

int runEval(const EvalOptions& o) {
    const auto start = std::chrono::steady_clock::now();
    if (!(o.jitter >= 0 && o.jitter <= 20)) return fail("--jitter: expected 0 to 20 pixels");
    if (o.enrolFrames < 50 || o.enrolFrames > 2000)
        return fail("--enrol-frames: expected 50 to 2000");
    if (o.probeFrames < 1 || o.probeFrames > 2000)
        return fail("--probe-frames: expected 1 to 2000");
    FrameList list;
    std::string error = readManifest(o.manifest, list);
    if (!error.empty()) return fail(error);
    int skipped = 0;
    std::vector<EvalPerson> persons = splitByVideo(list.rows, skipped);
    if (persons.size() < 2)
        return fail(o.manifest + ": expected at least two persons with two or more videos each");
    const std::string dictionary = o.out + "/dictionary";
    error = makeFolder(dictionary);
    if (!error.empty()) return fail(error);
    clearFolder(dictionary);
    Session s;
    error = s.open(dictionary);
    if (!error.empty()) return fail(error);
    s.engine().Set_Identify_thresvalue(o.threshold);

    std::printf(
        "%zu persons with two or more videos (%d with one video left out); enrolling from "
        "all but the last video, probing with the last\n",
        persons.size(), skipped);
    std::vector<std::vector<Frame>> probeFrames(persons.size());
    std::vector<int> enrolledIndex(persons.size(), -1);  // index in the session, or -1
    {
        Progress bar("enrolling", static_cast<int>(persons.size()));
        for (std::size_t i = 0; i < persons.size(); ++i) {
            const EvalPerson& p = persons[i];
            std::vector<Frame> enrol, probe;
            error = loadFrames(o.manifest, p.enrolRows, enrol);
            if (error.empty()) error = loadFrames(o.manifest, p.probeRows, probe);
            if (!error.empty()) return fail(error);
            const auto seed = static_cast<uint32_t>(1000 + i);
            error = s.enrol(
                static_cast<int>(i) + 1, keyNameOf(p.identity, static_cast<int>(i)),
                jitterFrames(enrol, copiesFor(static_cast<int>(enrol.size()), o.enrolFrames),
                             o.jitter, seed));
            if (!error.empty())
                std::fprintf(stderr, "\nmsmface: warning: %s not enrolled: %s\n",
                             p.identity.c_str(), error.c_str());
            else
                enrolledIndex[i] = static_cast<int>(s.persons().size()) - 1;
            probeFrames[i] =
                jitterFrames(probe, copiesFor(static_cast<int>(probe.size()), o.probeFrames),
                             o.jitter, seed + 7777u);
            bar.step(static_cast<int>(i) + 1);
        }
    }
    error = s.buildConstraint(o.dimension);
    if (!error.empty()) return fail(error);

    std::vector<MethodRun> runs = {{kMethodSinglePattern, "SINGLE PATTERN", kOrange, {}, {}},
                                   {kMethodMsm, "MSM", kBlue, {}, {}},
                                   {kMethodCmsm, "CMSM", kGreen, {}, {}}};
    const std::string csvPath = o.out + "/scores.csv";
    const std::string csvTemp = csvPath + ".tmp";
    std::FILE* csv = std::fopen(csvTemp.c_str(), "w");
    if (csv == nullptr) return fail(csvPath + ": cannot be written");
    std::fprintf(csv, "method,probe,candidate,score,genuine\n");
    for (MethodRun& run : runs) {
        Progress bar(std::string("probing ") + run.name, static_cast<int>(persons.size()));
        for (std::size_t i = 0; i < persons.size(); ++i) {
            bar.step(static_cast<int>(i) + 1);
            if (enrolledIndex[i] < 0) continue;
            Recognition r;
            if (!s.recognise(probeFrames[i], run.method, r).empty())
                r.scores.assign(s.persons().size(), -1);
            run.probes.push_back(ProbeScores{enrolledIndex[i], r.scores});
            for (std::size_t c = 0; c < r.scores.size(); ++c)
                std::fprintf(csv, "%d,%s,%s,%d,%d\n", run.method, persons[i].identity.c_str(),
                             s.persons()[c].name.c_str(), r.scores[c],
                             static_cast<int>(c) == enrolledIndex[i] ? 1 : 0);
        }
        run.figures = computeFigures(run.probes, o.threshold);
    }
    const bool written =
        std::fclose(csv) == 0 && std::rename(csvTemp.c_str(), csvPath.c_str()) == 0;
    if (!written) {
        std::remove(csvTemp.c_str());
        return fail(csvPath + ": cannot be written");
    }
    const std::string picture = o.out + "/eval.png";
    drawPicture(picture, runs);

    std::printf(
        "\n%zu enrolled, %d probes per method; threshold %d; constraint space of %d "
        "dimensions\n",
        s.persons().size(), runs[0].figures.probes, o.threshold, o.dimension);
    std::printf("method            rank-1  rank-5     EER  TAR@thr  FAR@thr  identified@thr\n");
    for (const MethodRun& run : runs) {
        const Figures& f = run.figures;
        std::printf("%-16s %6.1f%% %6.1f%% %6.1f%% %7.1f%% %7.2f%% %14.1f%%\n",
                    (std::to_string(run.method) + " " + run.name).c_str(), 100 * f.rank1,
                    100 * f.rank5, 100 * f.eer, 100 * f.trueAcceptAt, 100 * f.falseAcceptAt,
                    100 * f.identifiedAt);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("scores: %s; picture: %s; %.1f s\n", csvPath.c_str(), picture.c_str(), seconds);
    return 0;
}

}  // namespace msmcli
