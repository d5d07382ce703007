// The evaluation as one self-contained web page (eval-out/report.html): inline SVG charts,
// faces as embedded PNG, no scripts, fonts or anything fetched.
#ifndef MSMFACE_TOOLS_MSMFACE_REPORT_PAGE_H
#define MSMFACE_TOOLS_MSMFACE_REPORT_PAGE_H

#include <string>
#include <vector>

#include "evaluation/eval_summary.h"

namespace msmcli {

// PNG files (the bytes), indexed as EvalSummary::enrolled; an empty string where there is none.
struct ReportFaces {
    std::vector<std::string> enrolled;  // the normalised face each person was enrolled from
    std::vector<std::string> probe;     // the normalised face of the person's probe
};

std::string base64(const std::string& bytes);

// The page. Every figure on it comes from s, formatted as in summaryTable.
std::string reportPage(const EvalSummary& s, const ReportFaces& faces);

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_REPORT_PAGE_H
