// What the tests read of a report page: its charts and their titles.
#ifndef MSMFACE_TESTS_TOOLS_REPORT_SUPPORT_H
#define MSMFACE_TESTS_TOOLS_REPORT_SUPPORT_H

#include <regex>
#include <string>
#include <vector>

namespace clitest {

// Every inline <svg> ... </svg> of a page.
inline std::vector<std::string> Charts(const std::string& html) {
    std::vector<std::string> charts;
    for (std::size_t at = html.find("<svg"); at != std::string::npos;
         at = html.find("<svg", at + 1))
        charts.push_back(html.substr(at, html.find("</svg>", at) + 6 - at));
    return charts;
}

inline std::string TitleOf(const std::string& svg) {
    std::smatch m;
    return std::regex_search(svg, m, std::regex("<title>([^<]*)</title>")) ? m[1].str() : "";
}

}  // namespace clitest

#endif  // MSMFACE_TESTS_TOOLS_REPORT_SUPPORT_H
