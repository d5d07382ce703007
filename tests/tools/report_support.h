// What the tests read of a report page: its charts and their titles.
#ifndef MSMFACE_TESTS_TOOLS_REPORT_SUPPORT_H
#define MSMFACE_TESTS_TOOLS_REPORT_SUPPORT_H

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

// The text of the first <title> element that holds text alone, or "".
inline std::string TitleOf(const std::string& svg) {
    const std::string open = "<title>", close = "</title>";
    for (std::size_t at = svg.find(open); at != std::string::npos; at = svg.find(open, at + 1)) {
        const std::size_t text = at + open.size(), end = svg.find('<', text);
        if (end != std::string::npos && svg.compare(end, close.size(), close) == 0)
            return svg.substr(text, end - text);
    }
    return "";
}

}  // namespace clitest

#endif  // MSMFACE_TESTS_TOOLS_REPORT_SUPPORT_H
