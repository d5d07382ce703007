#include "evaluation/report_page.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "evaluation/svg_plot.h"

namespace msmcli {
namespace {

const char* colourOf(const MethodResult& m) {
    if (m.method == kMeanDescriptorMethod) return "#c51b7d";
    const bool seed = m.kind == msmface::PatternKind::Seed;
    switch (m.method) {
        case 0:
            return seed ? "#d98410" : "#8c510a";
        case 1:
            return seed ? "#2a56c6" : "#5e3c99";
        default:
            return seed ? "#1e9632" : "#01665e";
    }
}

// An id or attribute suffix for a kind's own parts of the page: nothing for Seed patterns.
std::string kindSuffix(msmface::PatternKind kind) {
    return kind == msmface::PatternKind::Seed ? std::string()
                                              : std::string("-") + msmface::patternKindName(kind);
}

std::string esc(const std::string& s) {
    return xmlEscape(s);
}

std::string percentTicks(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3g%%", 100 * v);
    return buf;
}

Axis shareAxis(const std::string& label) {
    Axis a{label, 0.0, 1.0, Scale::Linear, {}};
    for (int k = 0; k <= 10; k += 2) a.ticks.push_back({k / 10.0, std::to_string(k * 10) + "%"});
    return a;
}

Axis logFarAxis() {
    Axis a{"false-accept rate (log)", 1e-4, 1.0, Scale::Log10, {}};
    for (double v : {1e-4, 1e-3, 1e-2, 1e-1, 1.0}) a.ticks.push_back({v, percentTicks(v)});
    return a;
}

Axis deviateAxis(const std::string& label, double min, double max) {
    Axis a{label, min, max, Scale::NormalDeviate, {}};
    for (double v : {1e-4, 1e-3, 1e-2, 0.05, 0.2, 0.5, 0.8, 0.95, 0.99})
        if (v >= min && v <= max) a.ticks.push_back({v, percentTicks(v)});
    return a;
}

std::string rocPlot(const EvalSummary& s) {
    SvgPlot p("ROC", logFarAxis(), shareAxis("true-accept rate"));
    for (const MethodResult& m : s.methods) {
        std::vector<std::pair<double, double>> pts;
        // Thresholds fall along the curve; below 1e-4 false accepts the curve meets the axis.
        for (auto it = m.figures.roc.rbegin(); it != m.figures.roc.rend(); ++it)
            pts.push_back({std::max(it->falseAccept, 1e-4), it->trueAccept});
        p.curve(methodLabel(s, m), colourOf(m), pts);
    }
    return p.svg();
}

std::string detPlot(const EvalSummary& s) {
    SvgPlot p("DET", deviateAxis("false-accept rate", 1e-4, 0.99),
              deviateAxis("false-reject rate", 1e-3, 0.99));
    p.legendAtTop();
    for (const MethodResult& m : s.methods) {
        std::vector<std::pair<double, double>> pts;
        for (auto it = m.figures.roc.rbegin(); it != m.figures.roc.rend(); ++it)
            pts.push_back({it->falseAccept, 1.0 - it->trueAccept});
        p.curve(methodLabel(s, m), colourOf(m), pts);
    }
    return p.svg();
}

std::string cmcPlot(const EvalSummary& s) {
    Axis x{"rank", 1, kCmcRanks, Scale::Linear, {}};
    for (int k : {1, 5, 10, 15, 20}) x.ticks.push_back({k, std::to_string(k)});
    SvgPlot p("CMC", x, shareAxis("identified at rank or better"));
    for (const MethodResult& m : s.methods) {
        std::vector<std::pair<double, double>> pts;
        for (std::size_t k = 0; k < m.figures.cmc.size(); ++k)
            pts.push_back({static_cast<double>(k + 1), m.figures.cmc[k]});
        p.curve(methodLabel(s, m), colourOf(m), pts, true);
    }
    return p.svg();
}

std::string histogramPlot(const EvalSummary& s, const MethodResult& m) {
    constexpr int kBins = 50;
    constexpr double kBinWidth = 20.0;
    std::vector<double> g(kBins, 0.0), im(kBins, 0.0);
    auto add = [](std::vector<double>& bins, const std::vector<int>& scores) {
        for (int v : scores)
            bins[std::clamp(v / static_cast<int>(kBinWidth), 0, kBins - 1)] +=
                1.0 / static_cast<double>(scores.size());
    };
    add(g, m.figures.genuine);
    add(im, m.figures.impostor);
    const double highest =
        std::max(*std::max_element(g.begin(), g.end()), *std::max_element(im.begin(), im.end()));
    // Ticks at whole multiples of 5 % (10 % for tall bars), the axis ending on one.
    const double step = highest > 0.25 ? 0.1 : 0.05;
    const double top = std::max(1.0, std::ceil(highest * 1.05 / step)) * step;
    Axis x{"score", 0, 1000, Scale::Linear, {}};
    for (int v = 0; v <= 1000; v += 200) x.ticks.push_back({v, std::to_string(v)});
    Axis y{"share of scores", 0, top, Scale::Linear, {}};
    for (int k = 0; k * step <= top + 1e-9; ++k)
        y.ticks.push_back({k * step, percentTicks(k * step)});
    SvgPlot p(methodLabel(s, m) + ": scores", x, y, 420, 260);
    p.bars("impostor", "#c83232", 0, kBinWidth, im);
    p.bars("genuine", colourOf(m), 0, kBinWidth, g);
    // The identify threshold of the method's own kind: the kinds' scales differ.
    const int threshold = kindPartOf(s, m.kind).threshold;
    p.marker("threshold " + std::to_string(threshold), "#000000", threshold, false);
    p.marker("EER " + std::to_string(m.figures.eerThreshold), "#7a2ea0", m.figures.eerThreshold);
    p.marker("1% FAR " + std::to_string(m.figures.atFar1.threshold), "#c83232",
             m.figures.atFar1.threshold);
    return p.svg();
}

std::string sweepPlot(const KindPart& s, const std::string& title) {
    int maxDim = 0;
    for (const SweepPoint& pt : s.sweep) maxDim = std::max(maxDim, pt.dimension);
    maxDim = std::max(maxDim, s.dimension);
    Axis x{"constraint dimension", 0, static_cast<double>(maxDim), Scale::Linear, {}};
    for (const SweepPoint& pt : s.sweep)
        x.ticks.push_back({static_cast<double>(pt.dimension), std::to_string(pt.dimension)});
    SvgPlot p(title, x, shareAxis("rate"), 560, 320);
    std::vector<std::pair<double, double>> rank1, eer;
    for (const SweepPoint& pt : s.sweep) {
        rank1.push_back({static_cast<double>(pt.dimension), pt.rank1});
        eer.push_back({static_cast<double>(pt.dimension), pt.eer});
    }
    p.curve("rank-1", "#1e9632", rank1, true);
    p.curve("EER", "#c83232", eer, true);
    p.marker("chosen " + std::to_string(s.dimension), "#000000", s.dimension, false);
    if (s.bestDimension > 0)
        p.marker("best " + std::to_string(s.bestDimension), "#7a2ea0", s.bestDimension);
    return p.svg();
}

std::string img(const std::string& png, const std::string& alt) {
    if (png.empty()) return "<span class=\"noface\">no face</span>";
    return "<img class=\"face\" width=\"64\" height=\"64\" alt=\"" + esc(alt) +
           "\" src=\"data:image/png;base64," + base64(png) + "\">";
}

std::string faceOf(const std::vector<std::string>& faces, int i) {
    return i >= 0 && i < static_cast<int>(faces.size()) ? faces[i] : std::string();
}

std::string nameOf(const EvalSummary& s, int i) {
    return i >= 0 && i < static_cast<int>(s.enrolled.size()) ? s.enrolled[i] : std::string("?");
}

// One kind's figures; with kinds named, its rows carry the kind as well.
std::string resultsTable(const EvalSummary& s, const KindPart& k) {
    const bool named = namesKinds(s);
    const std::string threshold = std::to_string(k.threshold);
    std::string h = named ? "<div><h3>" + esc(std::string(msmface::patternKindName(k.kind))) +
                                " patterns</h3>\n"
                          : std::string();
    h += "<table class=\"figures\"><tr><th>method</th><th>probes</th><th>rank-1</th>"
         "<th>rank-5</th><th>EER</th><th>EER threshold</th><th>TAR at 1% FAR</th>"
         "<th>threshold</th><th>TAR at 0.1% FAR</th><th>threshold</th><th>TAR at " +
         threshold + "</th><th>FAR at " + threshold + "</th></tr>\n";
    for (const MethodResult& m : s.methods) {
        if (m.kind != k.kind) continue;
        const Figures& f = m.figures;
        const std::string kind =
            m.kind == msmface::PatternKind::Seed
                ? std::string()
                : std::string("data-kind=\"") + msmface::patternKindName(m.kind) + "\" ";
        const std::string label =
            m.method == kMeanDescriptorMethod ? m.name : std::to_string(m.method) + " " + m.name;
        h += "<tr " + kind + "data-method=\"" + std::to_string(m.method) + "\"><td>" + esc(label) +
             "</td><td>" + std::to_string(f.probes) + "</td><td>" + formatPercent(f.rank1) +
             "</td><td>" + formatPercent(f.rank5) + "</td><td>" + formatPercent(f.eer) +
             "</td><td>" + std::to_string(f.eerThreshold) + "</td><td>" +
             formatPercent(f.atFar1.trueAccept) + "</td><td>" + std::to_string(f.atFar1.threshold) +
             "</td><td>" + formatPercent(f.atFar01.trueAccept) + "</td><td>" +
             std::to_string(f.atFar01.threshold) + "</td><td>" + formatPercent(f.trueAcceptAt) +
             "</td><td>" + formatPercent(f.falseAcceptAt) + "</td></tr>\n";
    }
    return h + "</table>\n" + (named ? "</div>" : "");
}

// Every kind's figures, side by side.
std::string resultsTables(const EvalSummary& s) {
    const std::vector<KindPart> kinds = kindsOf(s);
    if (kinds.size() == 1) return resultsTable(s, kinds.front());
    std::string h = "<div class=\"row kinds\">";
    for (const KindPart& k : kinds) h += resultsTable(s, k);
    return h + "</div>\n";
}

std::string sweepSection(const EvalSummary& s, const KindPart& k) {
    if (k.sweep.empty()) return "";
    const std::string suffix = kindSuffix(k.kind);
    const std::string of =
        namesKinds(s) ? std::string(" over ") + msmface::patternKindName(k.kind) + " patterns" : "";
    std::string h = "<h2 id=\"sweep" + suffix + "\">CMSM" + esc(of) +
                    ": the constraint dimension</h2>\n<p>CMSM run again "
                    "with each constraint dimension (the space rebuilt from the same enrolled "
                    "persons). Chosen for this run: <b>" +
                    std::to_string(k.dimension) +
                    "</b>; best here (rank-1, then EER): "
                    "<b id=\"best-dimension" +
                    suffix + "\">" + std::to_string(k.bestDimension) +
                    "</b>.</p>\n<div class=\"row\">" +
                    sweepPlot(k, "CMSM by constraint dimension" + of) +
                    "<table class=\"sweep\"><tr><th>dimension</th><th>rank-1</th><th>EER</th>"
                    "<th>EER threshold</th></tr>\n";
    for (const SweepPoint& p : k.sweep) {
        const bool chosen = p.dimension == k.dimension;
        const bool best = p.dimension == k.bestDimension;
        h += "<tr " + (suffix.empty() ? std::string() : "data-kind=\"" + suffix.substr(1) + "\" ") +
             "data-dimension=\"" + std::to_string(p.dimension) + "\"" +
             (best ? " class=\"best\"" : "") + "><td>" + std::to_string(p.dimension) +
             (chosen ? " (chosen)" : "") + (best ? " (best)" : "") + "</td><td>" +
             formatPercent(p.rank1) + "</td><td>" + formatPercent(p.eer) + "</td><td>" +
             std::to_string(p.eerThreshold) + "</td></tr>\n";
    }
    return h + "</table></div>\n";
}

std::string failureSection(const EvalSummary& s, const ReportFaces& faces) {
    std::string h =
        "<h2 id=\"failures\">Probes identified wrongly</h2>\n<p>Each row is a probe "
        "that at least one method did not rank first: its normalised face, the face "
        "its true person was enrolled from, and for each method the person it was "
        "taken for, with the scores.</p>\n<table class=\"failures\"><tr><th>probe</th>"
        "<th>true person</th>";
    for (const MethodResult& m : s.methods)
        h += "<th>" + esc(methodLabel(s, m)) + " took it for</th>";
    h += "</tr>\n";
    if (s.methods.empty()) return h + "</table>\n";
    int rows = 0;
    for (std::size_t p = 0; p < s.methods.front().scores.size(); ++p) {
        bool wrong = false;
        for (const MethodResult& m : s.methods)
            if (p < m.scores.size() && rankOfTruth(m.scores[p]) != 1) wrong = true;
        if (!wrong) continue;
        ++rows;
        const int truth = s.methods.front().scores[p].truth;
        std::string trueScores;
        for (const MethodResult& m : s.methods)
            trueScores += "<br>" + esc(namesKinds(s) ? methodLabel(s, m) : m.name) + " " +
                          std::to_string(m.scores[p].scores[truth]) + " (rank " +
                          std::to_string(rankOfTruth(m.scores[p])) + ")";
        h += "<tr class=\"failure\"><td>" + img(faceOf(faces.probe, truth), "probe") + "<br>" +
             esc(nameOf(s, truth)) + "</td><td>" + img(faceOf(faces.enrolled, truth), "enrolled") +
             "<br>" + esc(nameOf(s, truth)) + trueScores + "</td>";
        for (const MethodResult& m : s.methods) {
            const int best = bestCandidate(m.scores[p]);
            if (rankOfTruth(m.scores[p]) == 1 || best < 0) {
                h += "<td class=\"right\">right</td>";
                continue;
            }
            h += "<td>" + img(faceOf(faces.enrolled, best), "taken for") + "<br>" +
                 esc(nameOf(s, best)) + "<br>score " + std::to_string(m.scores[p].scores[best]) +
                 "</td>";
        }
        h += "</tr>\n";
    }
    h += "</table>\n<p>" + std::to_string(rows) + " of " +
         std::to_string(s.methods.front().scores.size()) + " probes.</p>\n";
    return h;
}

std::string lowestSection(const EvalSummary& s, const ReportFaces& faces) {
    if (s.methods.empty()) return "";
    const MethodResult& last = s.methods.back();
    std::vector<std::size_t> order;
    for (std::size_t p = 0; p < last.scores.size(); ++p) order.push_back(p);
    auto genuineOf = [&](std::size_t p) { return last.scores[p].scores[last.scores[p].truth]; };
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return genuineOf(a) < genuineOf(b); });
    order.resize(std::min<std::size_t>(order.size(), 10));
    std::string h =
        "<h2 id=\"lowest\">Lowest genuine scores</h2>\n<p>The persons whose probe "
        "scored lowest against their own enrolment by " +
        esc(methodLabel(s, last)) +
        ", with the other methods' scores.</p>\n<table class=\"lowest\"><tr>"
        "<th>person</th><th>probe</th><th>enrolled</th>";
    for (const MethodResult& m : s.methods)
        h += "<th>" + esc(namesKinds(s) ? methodLabel(s, m) : m.name) + "</th>";
    h += "</tr>\n";
    for (std::size_t p : order) {
        const int truth = last.scores[p].truth;
        h += "<tr><td>" + esc(nameOf(s, truth)) + "</td><td>" +
             img(faceOf(faces.probe, truth), "probe") + "</td><td>" +
             img(faceOf(faces.enrolled, truth), "enrolled") + "</td>";
        for (const MethodResult& m : s.methods)
            h += "<td>" + std::to_string(m.scores[p].scores[truth]) + " (rank " +
                 std::to_string(rankOfTruth(m.scores[p])) + ")</td>";
        h += "</tr>\n";
    }
    return h + "</table>\n";
}

std::string settingsSection(const EvalSummary& s) {
    char jitter[32];
    std::snprintf(jitter, sizeof jitter, "%g", s.settings.jitter);
    std::string methods;
    for (const MethodResult& m : s.methods)
        methods += (methods.empty() ? "" : ", ") + methodLabel(s, m);
    std::string h = "<h2 id=\"settings\">The run</h2>\n<table class=\"settings\">";
    auto row = [&](const std::string& k, const std::string& v) {
        h += "<tr><th>" + esc(k) + "</th><td>" + esc(v) + "</td></tr>\n";
    };
    row("manifest", s.settings.manifest);
    row("library version", s.version);
    row("methods", methods);
    row("persons", std::to_string(s.personsWithVideos) + " with two or more videos (" +
                       std::to_string(s.leftOut) + " with one video left out); " +
                       std::to_string(s.enrolled.size()) + " enrolled");
    row("split", "enrolled from all but the last video of each person, probed with the last");
    row("feature points",
        s.settings.detect ? "found by the detector (the manifest's ignored)" : "the manifest's");
    row("point jitter", std::string(jitter) + " pixels");
    row("frames", std::to_string(s.settings.enrolFrames) + " offered to each registration, " +
                      std::to_string(s.settings.probeFrames) + " per probe");
    if (!namesKinds(s)) {
        row("constraint dimension", std::to_string(s.settings.dimension));
        row("identify threshold", std::to_string(s.settings.threshold));
    } else {
        for (const KindPart& k : kindsOf(s)) {
            const std::string kind = msmface::patternKindName(k.kind);
            row(kind + " patterns", "constraint dimension " + std::to_string(k.dimension) +
                                        ", identify threshold " + std::to_string(k.threshold));
        }
        row("descriptors", s.settings.detect
                               ? "of the faces the detector found"
                               : "of the faces in the box the manifest's points imply, their "
                                 "landmarks fitted by the detector's landmark model");
        row("mean descriptor",
            "one mean descriptor per person (of its enrolment frames, "
            "normalised) against the probe's, scored 1000 x cosine squared "
            "(0 below a cosine of 0)");
    }
    h += "</table>\n<table class=\"stages\"><tr><th>stage</th><th>seconds</th></tr>\n";
    for (const StageTime& t : s.stages) {
        char sec[32];
        std::snprintf(sec, sizeof sec, "%.1f", t.seconds);
        h += "<tr><td>" + esc(t.stage) + "</td><td>" + sec + "</td></tr>\n";
    }
    return h + "</table>\n";
}

const char* kStyle = R"(body{font-family:sans-serif;margin:24px;color:#222;max-width:1400px}
h1{font-size:22px}h2{font-size:18px;margin-top:28px;border-bottom:1px solid #ccc}
table{border-collapse:collapse;margin:8px 16px 8px 0}td,th{border:1px solid #ccc;padding:3px 7px;
font-size:13px;text-align:right;vertical-align:top}th{background:#f2f2f2}
table.settings td,table.settings th,table.failures td,table.lowest td{text-align:left}
.row{display:flex;flex-wrap:wrap;gap:12px;align-items:flex-start}
img.face{image-rendering:pixelated;width:96px;height:96px;display:block}
tr.best td{background:#eef7ee}td.right{color:#1e9632}.noface{color:#999}
.kinds{flex-wrap:nowrap}.kinds>div{flex:1 1 auto;min-width:0}.kinds table{margin-right:0}.kinds td,.kinds th{padding:2px;font-size:12px}
.kinds h3{font-size:15px;margin:4px 0})";

}  // namespace

std::string base64(const std::string& bytes) {
    static const char* kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const unsigned v = static_cast<unsigned char>(bytes[i]) << 16 |
                           static_cast<unsigned char>(bytes[i + 1]) << 8 |
                           static_cast<unsigned char>(bytes[i + 2]);
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += kAlphabet[v >> 6 & 63];
        out += kAlphabet[v & 63];
    }
    if (i < bytes.size()) {
        unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += i + 1 < bytes.size() ? kAlphabet[v >> 6 & 63] : '=';
        out += '=';
    }
    return out;
}

std::string reportPage(const EvalSummary& s, const ReportFaces& faces) {
    std::string h =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
        "<title>msmface evaluation</title>\n<style>";
    h += kStyle;
    h += "</style></head><body>\n<h1>msmface evaluation: " + esc(s.settings.manifest) + "</h1>\n";
    h += "<p>Library " + esc(s.version) + ". " + std::to_string(s.enrolled.size()) +
         " persons enrolled, one probe each. A score is accepted when it is strictly above a "
         "threshold.</p>\n";
    h +=
        "<p class=\"nav\"><a href=\"#figures\">figures</a> &middot; <a href=\"#scores\">scores</a>";
    for (const KindPart& k : kindsOf(s))
        if (!k.sweep.empty())
            h += " &middot; <a href=\"#sweep" + kindSuffix(k.kind) + "\">constraint dimension" +
                 (namesKinds(s) ? std::string(" (") + msmface::patternKindName(k.kind) + ")"
                                : std::string()) +
                 "</a>";
    h += " &middot; <a href=\"#failures\">failures</a> &middot; <a href=\"#lowest\">lowest genuine "
         "scores</a> &middot; "
         "<a href=\"#settings\">the run</a></p>\n";
    h += "<h2 id=\"figures\">Figures</h2>\n" + resultsTables(s);
    h += "<div class=\"row\">" + rocPlot(s) + detPlot(s) + cmcPlot(s) + "</div>\n";
    h += "<h2 id=\"scores\">Genuine and impostor scores</h2>\n";
    // A row of charts per kind: each kind's scores against its own threshold.
    for (const KindPart& k : kindsOf(s)) {
        h += "<div class=\"row\">";
        for (const MethodResult& m : s.methods)
            if (m.kind == k.kind) h += histogramPlot(s, m);
        h += "</div>\n";
    }
    for (const KindPart& k : kindsOf(s)) h += sweepSection(s, k);
    h += failureSection(s, faces);
    h += lowestSection(s, faces);
    h += settingsSection(s);
    return h + "</body></html>\n";
}

}  // namespace msmcli
