// A page loaded from disk in headless Chromium, the way a person opens it: what its console
// said, which of its images did not load, and a screenshot beside one of a blank page.
#ifndef MSMFACE_TESTS_TOOLS_BROWSER_CHECK_H
#define MSMFACE_TESTS_TOOLS_BROWSER_CHECK_H

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "cli_support.h"

namespace clitest {

// The browser, or an empty string when none is installed (MSMFACE_CHROMIUM overrides).
inline std::string FindChromium() {
    if (const char* env = std::getenv("MSMFACE_CHROMIUM")) return env;
    for (const char* candidate : {"/usr/bin/chromium", "/usr/bin/chromium-browser"})
        if (::access(candidate, X_OK) == 0) return candidate;
    return {};
}

struct BrowserReport {
    bool ran = false;
    std::vector<std::string> console;  // every line the page wrote to its console
    int images = -1;                   // images on the page, -1 when the check did not run
    std::string brokenImages;          // alt texts of those that did not load, comma-separated
    std::string screenshot;            // PNG bytes of the page at 1280 x 2400
    std::string blankScreenshot;       // PNG bytes of an empty page at the same size
};

// Width and height of a PNG from its header; 0 x 0 when it is not a PNG.
inline std::pair<int, int> PngSize(const std::string& png) {
    if (png.size() < 24 || png.compare(1, 3, "PNG") != 0) return {0, 0};
    auto be32 = [&](std::size_t at) {
        return static_cast<int>(static_cast<unsigned char>(png[at]) << 24 |
                                static_cast<unsigned char>(png[at + 1]) << 16 |
                                static_cast<unsigned char>(png[at + 2]) << 8 |
                                static_cast<unsigned char>(png[at + 3]));
    };
    return {be32(16), be32(20)};
}

namespace detail {

// Runs the browser on a file with extra arguments; its standard output is returned and its log
// (standard error) is appended to log.
inline std::string RunChromium(const std::string& browser, const std::string& work,
                               const std::string& args, const std::string& file, std::string& log) {
    static int run = 0;
    const std::string profile = work + "/profile" + std::to_string(++run);
    const std::string errPath = work + "/chromium" + std::to_string(run) + ".log";
    // CI runs as root, where the browser needs --no-sandbox; nothing is fetched or synced.
    const std::string command =
        "timeout 120 '" + browser +
        "' --headless --no-sandbox --disable-gpu --disable-background-networking "
        "--disable-component-update --disable-sync --no-first-run --disable-extensions "
        "--disable-dev-shm-usage "
        "--user-data-dir='" +
        profile + "' --enable-logging=stderr --v=0 " + args + " 'file://" + file + "' 2>'" +
        errPath + "'";
    std::string out;
    if (std::FILE* p = ::popen(command.c_str(), "r")) {
        char buf[4096];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        ::pclose(p);
    }
    log += ReadText(errPath);
    return out;
}

}  // namespace detail

// Loads page (an absolute path) twice: once with a probe script added at the end of a copy,
// which records on the body which images did not load (the page itself has no script, and a
// broken image writes nothing to the console), and once as it is, for the screenshot.
inline BrowserReport LoadInBrowser(const std::string& browser, const std::string& page,
                                   const std::string& work) {
    BrowserReport r;
    std::string html = ReadText(page);
    const std::string probe =
        "<script>window.addEventListener('load',function(){var bad=[],n=document.images.length;"
        "for(var i=0;i<n;i++){var m=document.images[i];if(!m.complete||m.naturalWidth===0)"
        "bad.push(m.alt||('#'+i));}document.body.setAttribute('data-image-check',n+':'+"
        "bad.join(','));});</script>";
    const std::size_t end = html.rfind("</body>");
    html.insert(end == std::string::npos ? html.size() : end, probe);
    const std::string probed = work + "/probed.html";
    WriteText(probed, html);
    std::string log;
    const std::string dom =
        detail::RunChromium(browser, work, "--virtual-time-budget=5000 --dump-dom", probed, log);
    const std::string blank = work + "/blank.html";
    WriteText(blank,
              "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>blank</title>"
              "</head><body></body></html>\n");
    for (const auto& [file, target] :
         {std::pair<std::string, std::string*>{page, &r.screenshot}, {blank, &r.blankScreenshot}}) {
        const std::string shot = work + "/shot.png";
        ::unlink(shot.c_str());
        detail::RunChromium(browser, work,
                            "--window-size=1280,2400 --hide-scrollbars --screenshot='" + shot + "'",
                            file, log);
        *target = ReadText(shot);
    }
    // The page's script leaves data-image-check="COUNT:BROKEN" on its body.
    const std::string check = "data-image-check=\"";
    for (std::size_t at = dom.find(check); at != std::string::npos; at = dom.find(check, at + 1)) {
        const std::size_t from = at + check.size();
        std::size_t colon = from;
        while (colon < dom.size() && dom[colon] >= '0' && dom[colon] <= '9') ++colon;
        const std::size_t close = dom.find('"', colon);
        if (colon == from || colon >= dom.size() || dom[colon] != ':' || close == std::string::npos)
            continue;
        r.images = std::stoi(dom.substr(from, colon - from));
        r.brokenImages = dom.substr(colon + 1, close - colon - 1);
        break;
    }
    std::istringstream lines(log);
    for (std::string l; std::getline(lines, l);)
        if (l.find(":CONSOLE") != std::string::npos) r.console.push_back(l);
    r.ran = !dom.empty();
    return r;
}

}  // namespace clitest

#endif  // MSMFACE_TESTS_TOOLS_BROWSER_CHECK_H
