#include "evaluation/eval_summary.h"

#include <cstdio>

namespace msmcli {
namespace {

std::string number(double v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.10g", v);
    return buf;
}

std::string sweepJson(const std::vector<SweepPoint>& sweep, const std::string& indent) {
    std::string j = "[";
    for (std::size_t i = 0; i < sweep.size(); ++i) {
        const SweepPoint& p = sweep[i];
        j += std::string(i ? ",\n" : "\n") + indent +
             "  {\"dimension\": " + std::to_string(p.dimension) +
             ", \"rank1\": " + number(p.rank1) + ", \"eer\": " + number(p.eer) +
             ", \"eer_threshold\": " + std::to_string(p.eerThreshold) + "}";
    }
    return j + (sweep.empty() ? "]" : "\n" + indent + "]");
}

std::string farPointJson(const msmface::FalseAcceptPoint& p) {
    return "{\"far\": " + number(p.rate) + ", \"threshold\": " + std::to_string(p.threshold) +
           ", \"true_accept\": " + number(p.trueAccept) +
           ", \"false_accept\": " + number(p.falseAccept) + "}";
}

}  // namespace

std::vector<KindPart> kindsOf(const EvalSummary& s) {
    if (!s.kinds.empty()) return s.kinds;
    KindPart seed;
    seed.dimension = s.settings.dimension;
    seed.threshold = s.settings.threshold;
    seed.sweep = s.sweep;
    seed.bestDimension = s.bestDimension;
    return {seed};
}

KindPart kindPartOf(const EvalSummary& s, msmface::PatternKind kind) {
    const std::vector<KindPart> kinds = kindsOf(s);
    for (const KindPart& k : kinds)
        if (k.kind == kind) return k;
    return kinds.front();
}

bool namesKinds(const EvalSummary& s) {
    for (const KindPart& k : kindsOf(s))
        if (k.kind != msmface::PatternKind::Seed) return true;
    return false;
}

std::string methodLabel(const EvalSummary& s, const MethodResult& m) {
    const std::string method =
        m.method == kMeanDescriptorMethod ? m.name : std::to_string(m.method) + " " + m.name;
    return namesKinds(s) ? std::string(msmface::patternKindName(m.kind)) + " " + method : method;
}

std::string formatPercent(double share) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f%%", 100.0 * share);
    return buf;
}

int bestCandidate(const ProbeScores& p) {
    int best = -1;
    for (int i = 0; i < static_cast<int>(p.scores.size()); ++i) {
        if (p.scores[i] < 0) continue;
        // A tie goes against the true person, as in rankOfTruth.
        const bool better = best < 0 || p.scores[i] > p.scores[best] ||
                            (p.scores[i] == p.scores[best] && best == p.truth);
        if (better) best = i;
    }
    return best;
}

int bestSweepDimension(const std::vector<SweepPoint>& sweep) {
    const SweepPoint* best = nullptr;
    for (const SweepPoint& p : sweep)
        if (best == nullptr || p.rank1 > best->rank1 ||
            (p.rank1 == best->rank1 && p.eer < best->eer) ||
            (p.rank1 == best->rank1 && p.eer == best->eer && p.dimension < best->dimension))
            best = &p;
    return best == nullptr ? 0 : best->dimension;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", u);
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

namespace {

std::string sweepLines(const KindPart& k, const std::string& prefix) {
    if (k.sweep.empty()) return {};
    std::string t = prefix + "CMSM by constraint dimension:";
    for (const SweepPoint& p : k.sweep)
        t += " " + std::to_string(p.dimension) + " " + formatPercent(p.rank1) + "/" +
             formatPercent(p.eer) + ";";
    t.back() = '\n';
    char line[256];
    std::snprintf(line, sizeof line,
                  "%sbest constraint dimension %d (rank-1, then EER); run with %d\n",
                  prefix.c_str(), k.bestDimension, k.dimension);
    return t + line;
}

}  // namespace

std::string summaryTable(const EvalSummary& s) {
    std::string t;
    char line[256];
    const int probes = s.methods.empty() ? 0 : s.methods.front().figures.probes;
    const std::vector<KindPart> kinds = kindsOf(s);
    const bool named = namesKinds(s);
    if (!named) {
        std::snprintf(line, sizeof line,
                      "\n%zu enrolled, %d probes per method; threshold %d; constraint space of "
                      "%d dimensions\n",
                      s.enrolled.size(), probes, s.settings.threshold, s.settings.dimension);
        t += line;
    } else {
        std::snprintf(line, sizeof line, "\n%zu enrolled, %d probes per method\n",
                      s.enrolled.size(), probes);
        t += line;
        for (const KindPart& k : kinds) {
            std::snprintf(line, sizeof line,
                          "%s patterns: threshold %d; constraint space of %d dimensions\n",
                          msmface::patternKindName(k.kind), k.threshold, k.dimension);
            t += line;
        }
    }
    // With kinds named, the method column holds the kind too; TAR and FAR at each kind's own
    // threshold.
    t += std::string(named ? "kind and method             " : "method           ") +
         " rank-1  rank-5     EER (thr)   TAR@1%FAR (thr)  TAR@0.1%FAR (thr)  TAR@thr  FAR@thr\n";
    for (const MethodResult& m : s.methods) {
        const Figures& f = m.figures;
        std::snprintf(line, sizeof line,
                      named ? "%-27s %7s %7s %7s (%3d) %9s (%4d) %11s (%4d) %8s %8s\n"
                            : "%-16s %7s %7s %7s (%3d) %9s (%4d) %11s (%4d) %8s %8s\n",
                      methodLabel(s, m).c_str(), formatPercent(f.rank1).c_str(),
                      formatPercent(f.rank5).c_str(), formatPercent(f.eer).c_str(), f.eerThreshold,
                      formatPercent(f.atFar1.trueAccept).c_str(), f.atFar1.threshold,
                      formatPercent(f.atFar01.trueAccept).c_str(), f.atFar01.threshold,
                      formatPercent(f.trueAcceptAt).c_str(),
                      formatPercent(f.falseAcceptAt).c_str());
        t += line;
    }
    for (const KindPart& k : kinds)
        t += sweepLines(k, named ? std::string(msmface::patternKindName(k.kind)) + " " : "");
    return t;
}

std::string summaryJson(const EvalSummary& s) {
    const std::vector<KindPart> kinds = kindsOf(s);
    std::string kindNames;
    for (const KindPart& k : kinds)
        kindNames += (kindNames.empty() ? "" : ", ") + jsonString(msmface::patternKindName(k.kind));
    std::string j = "{\n";
    j += "  \"version\": " + jsonString(s.version) + ",\n";
    j += "  \"settings\": {\"manifest\": " + jsonString(s.settings.manifest) +
         ", \"jitter\": " + number(s.settings.jitter) +
         ", \"enrol_frames\": " + std::to_string(s.settings.enrolFrames) +
         ", \"probe_frames\": " + std::to_string(s.settings.probeFrames) +
         ", \"dimension\": " + std::to_string(s.settings.dimension) +
         ", \"threshold\": " + std::to_string(s.settings.threshold) +
         ", \"points\": " + jsonString(s.settings.detect ? "detector" : "manifest") +
         ", \"patterns\": [" + kindNames + "]},\n";
    j += "  \"persons_with_two_or_more_videos\": " + std::to_string(s.personsWithVideos) + ",\n";
    j += "  \"persons_left_out\": " + std::to_string(s.leftOut) + ",\n";
    j += "  \"enrolled\": " + std::to_string(s.enrolled.size()) + ",\n";
    j += "  \"methods\": [\n";
    for (std::size_t i = 0; i < s.methods.size(); ++i) {
        const MethodResult& m = s.methods[i];
        const Figures& f = m.figures;
        j += "    {\"method\": " + std::to_string(m.method) + ", \"name\": " + jsonString(m.name) +
             ", \"kind\": " + jsonString(msmface::patternKindName(m.kind)) +
             ", \"probes\": " + std::to_string(f.probes) + ",\n";
        j += "     \"rank1\": " + number(f.rank1) + ", \"rank5\": " + number(f.rank5) +
             ", \"eer\": " + number(f.eer) +
             ", \"eer_threshold\": " + std::to_string(f.eerThreshold) + ",\n";
        j += "     \"at_far_1\": " + farPointJson(f.atFar1) + ",\n";
        j += "     \"at_far_0_1\": " + farPointJson(f.atFar01) + ",\n";
        j += "     \"at_threshold\": {\"threshold\": " +
             std::to_string(kindPartOf(s, m.kind).threshold) +
             ", \"true_accept\": " + number(f.trueAcceptAt) +
             ", \"false_accept\": " + number(f.falseAcceptAt) +
             ", \"identified\": " + number(f.identifiedAt) + "},\n";
        j += "     \"cmc\": [";
        for (std::size_t k = 0; k < f.cmc.size(); ++k) j += (k ? ", " : "") + number(f.cmc[k]);
        j += "]}";
        j += i + 1 < s.methods.size() ? ",\n" : "\n";
    }
    j += "  ],\n";
    j += "  \"sweep\": " + sweepJson(s.sweep, "  ") + ",\n";
    j += "  \"best_dimension\": " + std::to_string(s.bestDimension) + ",\n";
    j += "  \"kinds\": [";
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        const KindPart& k = kinds[i];
        j += std::string(i ? ",\n" : "\n") +
             "    {\"kind\": " + jsonString(msmface::patternKindName(k.kind)) +
             ", \"dimension\": " + std::to_string(k.dimension) +
             ", \"threshold\": " + std::to_string(k.threshold) +
             ", \"best_dimension\": " + std::to_string(k.bestDimension) +
             ", \"sweep\": " + sweepJson(k.sweep, "    ") + "}";
    }
    j += "\n  ],\n";
    // Per probe and method: the true person's score and rank, and whom the method ranked first
    // (the failures and lowest genuine scores of the page).
    j += "  \"probes\": [";
    const std::size_t probes = s.methods.empty() ? 0 : s.methods.front().scores.size();
    for (std::size_t p = 0; p < probes; ++p) {
        const int truth = s.methods.front().scores[p].truth;
        const bool named = truth >= 0 && truth < static_cast<int>(s.enrolled.size());
        j += std::string(p ? ",\n" : "\n") +
             "    {\"identity\": " + jsonString(named ? s.enrolled[truth] : "") +
             ", \"methods\": [";
        for (std::size_t i = 0; i < s.methods.size(); ++i) {
            const ProbeScores& ps = s.methods[i].scores[p];
            const int best = bestCandidate(ps);
            const bool scored = truth >= 0 && truth < static_cast<int>(ps.scores.size());
            j += std::string(i ? ", " : "") +
                 "{\"method\": " + std::to_string(s.methods[i].method) +
                 ", \"kind\": " + jsonString(msmface::patternKindName(s.methods[i].kind)) +
                 ", \"genuine_score\": " + std::to_string(scored ? ps.scores[truth] : -1) +
                 ", \"rank\": " + std::to_string(rankOfTruth(ps)) + ", \"best\": " +
                 jsonString(best >= 0 && best < static_cast<int>(s.enrolled.size())
                                ? s.enrolled[best]
                                : "") +
                 ", \"best_score\": " + std::to_string(best >= 0 ? ps.scores[best] : -1) + "}";
        }
        j += "]}";
    }
    j += probes == 0 ? "],\n" : "\n  ],\n";
    j += "  \"stages\": [";
    for (std::size_t i = 0; i < s.stages.size(); ++i)
        j += std::string(i ? ", " : "") + "{\"stage\": " + jsonString(s.stages[i].stage) +
             ", \"seconds\": " + number(s.stages[i].seconds) + "}";
    j += "]\n}\n";
    return j;
}

}  // namespace msmcli
