// msmface_soak: recognises a million frames (or --frames N) of synthetic persons, loading the
// gallery anew every --reload frames, and prints the resident memory as it goes, so that a leak
// shows as a curve that keeps rising.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "soak_run.h"

int main(int argc, char** argv) {
    long frames = 1000000, reload = 100000, every = 50000;
    int persons = 4, width = 160, height = 120;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        const long v = std::atol(argv[i + 1]);
        if (a == "--frames")
            frames = v;
        else if (a == "--reload")
            reload = v;
        else if (a == "--every")
            every = v;
        else if (a == "--persons")
            persons = static_cast<int>(v);
        else {
            std::fprintf(stderr,
                         "msmface_soak: %s: expected --frames, --reload, --every or --persons\n",
                         a.c_str());
            return 2;
        }
    }
    if (frames < 1 || every < 1 || reload < 0) {
        std::fprintf(stderr, "msmface_soak: expected --frames and --every of 1 or more\n");
        return 2;
    }
    char pattern[] = "/tmp/msmface-soakXXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        std::fprintf(stderr, "msmface_soak: cannot create a folder in /tmp\n");
        return 1;
    }
    msmsoak::SoakRun run(pattern, persons, width, height, 1);
    const std::string error = run.prepare();
    if (!error.empty()) {
        std::fprintf(stderr, "msmface_soak: %s\n", error.c_str());
        return 1;
    }
    std::printf("# %ld frames of %d persons (%dx%d), gallery reloaded every %ld frames\n", frames,
                persons, width, height, reload);
    std::printf("# frames  resident_kB  right_first  seconds\n");
    const auto start = std::chrono::steady_clock::now();
    std::printf("%8ld %12ld %12d %8.1f\n", 0L, msmsoak::residentBytes() / 1024, 0, 0.0);
    long right = 0;
    while (run.done() < frames) {
        const long step = std::min(every, frames - run.done());
        const long r = run.run(step, reload);
        if (r < 0) {
            std::fprintf(stderr, "msmface_soak: the gallery did not reload\n");
            return 1;
        }
        right += r;
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::printf("%8ld %12ld %12ld %8.1f\n", run.done(), msmsoak::residentBytes() / 1024, right,
                    s);
        std::fflush(stdout);
    }
    std::error_code ec;
    std::filesystem::remove_all(pattern, ec);
    return 0;
}
