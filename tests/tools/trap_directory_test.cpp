// Every command of the program against a dictionary directory full of traps: links in every role
// pointing out of the directory, pipes, a huge sparse file, tampered dictionaries, foreign files
// and persons named like the store's own files. Whatever a command makes of them, it must not
// change anything outside the directory, lose anything a user registered, crash or hang.
//
// Each trap is planted alone in a fresh copy of one healthy directory before each call, so a
// defect shows as the (trap, call) pairs it breaks; a new trap or call is one line of the tables.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <msmface/gallery.h>

#include "cli_support.h"
#include "store/registry.h"
#include "store_support.h"
#include "tools/synth/synth_face.h"

namespace {

namespace fs = std::filesystem;
using clitest::ReadText;
using clitest::WriteText;

// What the secret file outside holds: no message may quote it.
constexpr const char* kSecret = "SECRET-d41d8cd9";

// A call still running after this long has hung (a bound, not a speed claim).
constexpr int kHangSeconds = 20;

// The folders of one call: the trap directory dir = root/out/dictionary, where eval and demo
// --out root/out meet it; outside, the sibling folder that the links point into; in, the user's
// inputs (frames, points files, a video, a manifest).
struct Layout {
    std::string root, out, dir, outside, in;
    std::string Dir(const std::string& name) const { return dir + "/" + name; }
    std::string Outside(const std::string& name) const { return outside + "/" + name; }
    std::string In(const std::string& name) const { return in + "/" + name; }
};

// --- what is planted ---------------------------------------------------------------------------

void Remove(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
}

// Replaces the entry at `at` inside the directory with a link to `target`.
void LinkTo(const std::string& at, const std::string& target) {
    Remove(at);
    ASSERT_EQ(::symlink(target.c_str(), at.c_str()), 0) << at << ": " << std::strerror(errno);
}

void HardLinkTo(const std::string& at, const std::string& target) {
    Remove(at);
    ASSERT_EQ(::link(target.c_str(), at.c_str()), 0) << at << ": " << std::strerror(errno);
}

void PipeAt(const std::string& at) {
    Remove(at);
    ASSERT_EQ(::mkfifo(at.c_str(), 0644), 0) << at << ": " << std::strerror(errno);
}

// A file of 2 GiB that occupies no disk: its first bytes those of the file it replaces.
void HugeAt(const std::string& at) {
    const std::string head = ReadText(at).substr(0, 4096);
    Remove(at);
    WriteText(at, head);
    ASSERT_EQ(::truncate(at.c_str(), int64_t{2} << 30), 0) << at;
}

// Three bytes overwritten, as a bad sector or a careless edit does: here the size of the first
// record, so that the file no longer reads.
void TamperAt(const std::string& at) {
    std::string bytes = ReadText(at);
    ASSERT_GT(bytes.size(), 64u) << at;
    for (std::size_t k = 8; k < 11; ++k) bytes[k] = '\x7f';
    WriteText(at, bytes);
}

// Every value of every vector of a dictionary (".dck": "DCK", int32 records, then per record
// int32 size, mode, count, dimension and count x dimension float32) set to 1/16: the file still
// parses, but its vectors are neither unit length nor orthogonal.
void ConstantVectorsAt(const std::string& at) {
    std::string bytes = ReadText(at);
    auto field = [&](std::size_t pos) {
        int32_t v = 0;
        std::memcpy(&v, bytes.data() + pos, 4);
        return v;
    };
    ASSERT_EQ(bytes.substr(0, 3), "DCK") << at;
    const float sixteenth = 1.0f / 16;
    std::size_t pos = 7;
    for (int32_t r = 0, records = field(3); r < records && pos + 16 <= bytes.size(); ++r) {
        const int32_t size = field(pos), count = field(pos + 8), dim = field(pos + 12);
        ASSERT_EQ(size, 12 + 4 * count * dim) << at;
        for (int32_t k = 0; k < count * dim; ++k)
            std::memcpy(bytes.data() + pos + 16 + 4 * static_cast<std::size_t>(k), &sixteenth, 4);
        pos += 4 + static_cast<std::size_t>(size);
    }
    WriteText(at, bytes);
}

void AppendToRegistry(const Layout& l, const std::string& line) {
    WriteText(l.Dir("persons.txt"), ReadText(l.Dir("persons.txt")) + line + "\n");
}

// Copies of erin's files under another key name (a person the user registered by hand).
void PersonFilesAs(const Layout& l, const std::string& name) {
    for (const char* ext : {".dck", ".mck", ".bmp"})
        fs::copy_file(l.Dir(std::string("erin") + ext), l.Dir(name + ext),
                      fs::copy_options::overwrite_existing);
}

struct Trap {
    std::string name;
    std::function<void(const Layout&)> plant;
    // Files (in the directory, after planting) a user registered: whatever the call did, a file
    // of that name and those bytes stays in the directory (lost+found counts).
    std::vector<std::string> precious = {};
    // The trap replaces a file of the store itself (registry, threshold, lock): the directory may
    // then be refused as a whole. Otherwise it must still open with alice and bob after every call:
    // one bad file does not take the gallery down.
    bool storeFile = false;
};

// The traps. Persons alice (1) and bob (2) stay healthy in every one; erin (3) is the person the
// traps may damage; carol is the person the calls enrol, dave the one whose enrolment fails.
const std::vector<Trap>& Traps() {
    static const std::vector<Trap> traps = {
        {"registry_links_out",
         [](const Layout& l) { LinkTo(l.Dir("persons.txt"), l.Outside("registry.txt")); },
         {},
         true},
        {"registry_is_a_pipe", [](const Layout& l) { PipeAt(l.Dir("persons.txt")); }, {}, true},
        {"registry_is_huge", [](const Layout& l) { HugeAt(l.Dir("persons.txt")); }, {}, true},
        {"threshold_links_out",
         [](const Layout& l) { LinkTo(l.Dir("threshold.txt"), l.Outside("secret.txt")); },
         {},
         true},
        {"threshold_is_a_pipe", [](const Layout& l) { PipeAt(l.Dir("threshold.txt")); }, {}, true},
        {"constraint_list_links_out",
         [](const Layout& l) { LinkTo(l.Dir("constraint.list"), l.Outside("secret.txt")); }},
        {"constraint_list_is_a_pipe", [](const Layout& l) { PipeAt(l.Dir("constraint.list")); }},
        {"constraint_files_link_out",
         [](const Layout& l) {
             for (const char* stem : {"cmsm", "cmsm-2"})
                 for (const char* ext : {".dck", ".dckev", ".mck"})
                     LinkTo(l.Dir(std::string(stem) + ext), l.Outside(std::string("victim") + ext));
         }},
        {"lock_links_out",
         [](const Layout& l) { LinkTo(l.Dir(".msmface.lock"), l.Outside("victim.bin")); },
         {},
         true},
        {"lock_is_a_hard_link_out",
         [](const Layout& l) { HardLinkTo(l.Dir(".msmface.lock"), l.Outside("victim.bin")); },
         {},
         true},
        {"lock_is_a_pipe", [](const Layout& l) { PipeAt(l.Dir(".msmface.lock")); }, {}, true},
        {"new_persons_files_link_out",
         [](const Layout& l) {
             for (const char* stem : {"carol", "dave"})
                 for (const char* ext : {".dck", ".mck", ".bmp"})
                     LinkTo(l.Dir(std::string(stem) + ext), l.Outside(std::string("victim") + ext));
         }},
        {"persons_files_link_out",
         [](const Layout& l) {
             for (const char* ext : {".dck", ".mck", ".bmp"})
                 LinkTo(l.Dir(std::string("erin") + ext), l.Outside(std::string("victim") + ext));
         }},
        {"persons_files_are_pipes",
         [](const Layout& l) {
             for (const char* ext : {".dck", ".mck", ".bmp"})
                 PipeAt(l.Dir(std::string("erin") + ext));
         }},
        {"dictionary_is_huge", [](const Layout& l) { HugeAt(l.Dir("erin.dck")); }},
        {"dictionary_three_bytes_tampered", [](const Layout& l) { TamperAt(l.Dir("erin.dck")); }},
        {"dictionary_vectors_all_one_sixteenth",
         [](const Layout& l) { ConstantVectorsAt(l.Dir("erin.dck")); }},
        {"lost_and_found_links_out",
         [](const Layout& l) { LinkTo(l.Dir("lost+found"), l.Outside("folder")); }},
        {"foreign_file",
         [](const Layout& l) { WriteText(l.Dir("holiday.jpg"), "a user's own file"); },
         {"holiday.jpg"}},
        {"person_named_like_the_constraint_space",
         [](const Layout& l) {
             PersonFilesAs(l, "cmsm-2");
             AppendToRegistry(l, "4 cmsm-2");
         },
         {"cmsm-2.dck", "cmsm-2.mck"}},
        {"unlisted_persons_files",
         [](const Layout& l) { PersonFilesAs(l, "dave"); },
         {"dave.dck", "dave.mck", "dave.bmp"}},
    };
    return traps;
}

// --- what is called ----------------------------------------------------------------------------

struct Call {
    std::string name;
    std::function<std::vector<std::string>(const Layout&)> args;
};

const char* kModel = "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";

// The entries of the directory that the trap planted or changed (links and pipes included): what
// a healthy directory holds is read by every test of the program already.
std::vector<std::string> PlantedEntries(const Layout& l, const std::string& healthy) {
    std::vector<std::string> paths;
    for (const auto& e : fs::directory_iterator(l.dir)) {
        const std::string name = e.path().filename().string();
        struct stat st {};
        // Sizes first: a huge planted file is told apart without reading it.
        const bool same =
            ::lstat(e.path().c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            fs::is_regular_file(healthy + "/" + name) &&
            fs::file_size(healthy + "/" + name) == static_cast<std::uintmax_t>(st.st_size) &&
            ReadText(e.path().string()) == ReadText(healthy + "/" + name);
        if (!same) paths.push_back(e.path().string());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// Every command and its flags that touch a dictionary directory or read the files in it. The
// commands that take one file (inspect) are called once per entry of the directory; detect takes
// them all as pictures.
std::vector<Call> Calls(const Layout& planted, const std::string& healthy) {
    std::vector<Call> calls = {
        {"list",
         [](const Layout& l) {
             return std::vector<std::string>{"list", l.dir};
         }},
        {"check",
         [](const Layout& l) {
             return std::vector<std::string>{"check", l.dir};
         }},
        {"check --repair",
         [](const Layout& l) {
             return std::vector<std::string>{"check", l.dir, "--repair"};
         }},
        {"recognise",
         [](const Layout& l) {
             return std::vector<std::string>{"recognise", l.dir, "--points", l.In("probe.txt")};
         }},
        {"recognise --method 4",
         [](const Layout& l) {
             return std::vector<std::string>{"recognise",       l.dir,      "--points",
                                             l.In("probe.txt"), "--method", "4"};
         }},
        {"enrol",
         [](const Layout& l) {
             return std::vector<std::string>{"enrol",    l.dir,   "--id",     "5",
                                             "--name",   "carol", "--points", l.In("carol.txt"),
                                             "--copies", "3",     "--jitter", "1"};
         }},
        {"enrol with too few frames",
         [](const Layout& l) {
             return std::vector<std::string>{"enrol",  l.dir,  "--id",     "6",
                                             "--name", "dave", "--points", l.In("few.txt")};
         }},
        {"delete",
         [](const Layout& l) {
             return std::vector<std::string>{"delete", l.dir, "--id", "3"};
         }},
        {"constraint",
         [](const Layout& l) {
             return std::vector<std::string>{"constraint", l.dir, "--dimension", "12"};
         }},
        {"calibrate",
         [](const Layout& l) {
             return std::vector<std::string>{
                 "calibrate",      l.dir, "--manifest", l.In("m.csv"),
                 "--probe-frames", "6",   "--scores",   l.root + "/scores.csv"};
         }},
        {"eval --out",
         [](const Layout& l) {
             return std::vector<std::string>{"eval",
                                             "--manifest",
                                             l.In("m.csv"),
                                             "--out",
                                             l.out,
                                             "--no-sweep",
                                             "--enrol-frames",
                                             "50",
                                             "--probe-frames",
                                             "6",
                                             "--dimension",
                                             "12"};
         }},
        {"demo --out",
         [](const Layout& l) {
             return std::vector<std::string>{"demo", "--out", l.out, "--persons", "2"};
         }},
        {"watch",
         [](const Layout& l) {
             return std::vector<std::string>{"watch",    l.dir, "--video", l.In("take.avi"),
                                             "--frames", "4",   "--model", kModel};
         }},
        {"detect",
         [healthy](const Layout& l) {
             std::vector<std::string> args = {"detect", l.In("f_0.pgm")};
             for (const std::string& p : PlantedEntries(l, healthy)) args.push_back(p);
             for (const char* a : {"--model", kModel}) args.push_back(a);
             return args;
         }},
        {"detect --model in the directory",
         [](const Layout& l) {
             return std::vector<std::string>{"detect", l.In("f_0.pgm"), "--model",
                                             l.Dir("erin.dck")};
         }},
    };
    for (const std::string& entry : PlantedEntries(planted, healthy))
        calls.push_back({"inspect " + fs::path(entry).filename().string(), [entry](const Layout&) {
                             return std::vector<std::string>{"inspect", entry};
                         }});
    return calls;
}

// --- what is checked ---------------------------------------------------------------------------

// What a folder holds, without following a link or opening anything but regular files: per entry
// (recursively) its type and mode, its size and bytes, or its link's target.
std::map<std::string, std::string> Snapshot(const std::string& folder) {
    std::map<std::string, std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(folder, ec);
         it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const std::string path = it->path().string();
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) continue;
        std::string what =
            "mode " + std::to_string(st.st_mode) + " links " + std::to_string(st.st_nlink);
        if (S_ISLNK(st.st_mode))
            what += " -> " + fs::read_symlink(it->path(), ec).string();
        else if (S_ISREG(st.st_mode))
            what += " size " + std::to_string(st.st_size) + " bytes " + ReadText(path);
        out[path.substr(folder.size())] = what;
    }
    return out;
}

std::string Differences(const std::map<std::string, std::string>& before,
                        const std::map<std::string, std::string>& after) {
    std::string text;
    for (const auto& [name, what] : before) {
        auto it = after.find(name);
        if (it == after.end())
            text += " removed " + name + ";";
        else if (it->second != what)
            text += " changed " + name + ";";
    }
    for (const auto& [name, what] : after)
        if (before.count(name) == 0) text += " added " + name + ";";
    return text;
}

// Whether a regular file of this name and these bytes is inside the directory (in lost+found too),
// not through links.
bool KeptInside(const std::string& dir, const std::string& name, const std::string& bytes) {
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(dir, ec);
         it != fs::recursive_directory_iterator(); it.increment(ec)) {
        struct stat st {};
        if (it->path().filename() == name && ::lstat(it->path().c_str(), &st) == 0 &&
            S_ISREG(st.st_mode) && ReadText(it->path().string()) == bytes)
            return true;
    }
    return false;
}

constexpr int kHung = -1000;

// The exit code of the child; kHung when it outlived the bound (it is killed), -signal when it
// died of one.
int WaitBounded(pid_t pid) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kHangSeconds);
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return kHung;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// 0 when a fresh open of the directory lists alice and bob; 1 when it fails, 2 when it lacks
// them. Opened in a child process, as a trap may hang or crash it.
int HealthyPersonsLoad(const std::string& dir) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        msmface::OpenOptions o;
        o.lock.wait = false;
        auto g = msmface::Gallery::open(dir, o);
        if (!g.ok()) ::_exit(1);
        int healthy = 0;
        for (const auto& p : g->persons())
            healthy += (p.id == 1 && p.name == "alice") || (p.id == 2 && p.name == "bob");
        ::_exit(healthy == 2 ? 0 : 2);
    }
    return WaitBounded(pid);
}

class TrapDirectory : public ::testing::Test {
  protected:
    // One healthy directory for every call: alice, bob and erin enrolled and a constraint space
    // built; the user's inputs beside it; the outside folder's files.
    static void SetUpTestSuite() {
        scratch_ = std::make_unique<clitest::Scratch>("msmface-traps");
        const std::string base = scratch_->path();
        template_ = base + "/template";
        inputs_ = base + "/in";
        outsideTemplate_ = base + "/outside";
        fs::create_directories(inputs_);
        const char* names[] = {"alice", "bob", "erin"};
        for (int i = 0; i < 3; ++i) {
            const std::string points = inputs_ + "/" + names[i] + ".txt";
            WriteText(points, clitest::Join(clitest::WriteTake(inputs_, names[i], i, 300 + i, 25)));
            const clitest::CliRun r = clitest::RunCli(
                "enrol '" + template_ + "' --id " + std::to_string(i + 1) + " --name " + names[i] +
                " --points '" + points + "' --copies 3 --jitter 1");
            ASSERT_EQ(r.status, 0) << r.err;
        }
        ASSERT_EQ(clitest::RunCli("constraint '" + template_ + "' --dimension 12").status, 0);
        WriteText(template_ + "/threshold.txt", "850\n");
        WriteText(inputs_ + "/carol.txt",
                  clitest::Join(clitest::WriteTake(inputs_, "carol", 3, 303, 25)));
        WriteText(inputs_ + "/few.txt",
                  clitest::Join(clitest::WriteTake(inputs_, "dave", 4, 304, 3)));
        WriteText(inputs_ + "/probe.txt",
                  clitest::Join(clitest::WriteTake(inputs_, "f", 0, 310, 12)));
        clitest::WriteSyntheticManifest(inputs_, 2);
        // A short video of alice for watch.
        cv::VideoWriter video(inputs_ + "/take.avi", cv::CAP_FFMPEG,
                              cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 25, cv::Size(320, 240),
                              false);
        const msmsynth::SynthPerson alice = msmsynth::makePerson(7, 0);
        for (const msmsynth::SynthPose& pose : msmsynth::makeSequence(311, 4, 320, 240)) {
            msmsynth::SynthFrame f = msmsynth::renderFrame(alice, pose, 320, 240);
            video.write(cv::Mat(f.height, f.width, CV_8UC1, f.pixels.data()));
        }
        video.release();
        // Outside: what the links point at; a registry, dictionaries and a secret worth stealing.
        fs::create_directories(outsideTemplate_ + "/folder");
        WriteText(outsideTemplate_ + "/secret.txt",
                  std::string(kSecret) + " the first line\nand more\n");
        WriteText(outsideTemplate_ + "/registry.txt", ReadText(template_ + "/persons.txt"));
        WriteText(outsideTemplate_ + "/victim.bin", "bytes that are nobody's business");
        WriteText(outsideTemplate_ + "/folder/kept.txt", "a file in a folder outside");
        for (const char* ext : {".dck", ".mck", ".bmp"})
            fs::copy_file(template_ + "/erin" + ext, outsideTemplate_ + "/victim" + ext);
        fs::copy_file(template_ + "/erin.dck", outsideTemplate_ + "/victim.dckev");
    }
    static void TearDownTestSuite() { scratch_.reset(); }

    // A fresh copy of everything for one call, with the trap planted.
    Layout Fresh(const Trap& trap) const {
        Layout l;
        l.root = work_.path() + "/case" + std::to_string(++cases_);
        l.out = l.root + "/out";
        l.dir = l.out + "/dictionary";
        l.outside = l.root + "/outside";
        l.in = inputs_;
        fs::create_directories(l.out);
        fs::copy(template_, l.dir, fs::copy_options::recursive);
        fs::copy(outsideTemplate_, l.outside, fs::copy_options::recursive);
        trap.plant(l);
        return l;
    }

    // One call against one planted trap, from its start to its checks.
    struct Job {
        const Trap* trap = nullptr;
        Call call;
        Layout layout;
        std::map<std::string, std::string> precious, outsideBefore;
        storetest::Launched run;
    };

    Job Start(const Trap& trap, const Call& call) const {
        Job job{&trap, call, Fresh(trap), {}, {}, {}};
        for (const std::string& name : trap.precious)
            job.precious[name] = ReadText(job.layout.Dir(name));
        job.outsideBefore = Snapshot(job.layout.outside);
        job.run = storetest::Launch(call.args(job.layout), job.layout.root + "/log");
        return job;
    }

    // Reports each breach of a finished call as one failure naming the trap and the call.
    void Check(const Job& job, int status) const {
        const Layout& l = job.layout;
        const std::string where = "trap " + job.trap->name + ", msmface " + job.call.name;
        const std::string err = ReadText(job.run.errPath);
        const std::string out = ReadText(job.run.outPath);
        EXPECT_EQ((out + err).find(kSecret), std::string::npos)
            << where << ": printed what a file outside holds\n"
            << err;
        EXPECT_NE(status, kHung) << where << ": hung (killed after " << kHangSeconds << " s)";
        EXPECT_TRUE(status >= 0 || status == kHung)
            << where << ": died of signal " << -status << "\n"
            << err;
        const std::string changed = Differences(job.outsideBefore, Snapshot(l.outside));
        EXPECT_EQ(changed, "") << where << ": changed outside the directory\n" << err;
        for (const char* name : {"alice", "bob"})
            for (const char* ext : {".dck", ".mck", ".bmp"}) {
                const std::string file = std::string(name) + ext;
                struct stat st {};
                const bool regular = ::lstat(l.Dir(file).c_str(), &st) == 0 && S_ISREG(st.st_mode);
                EXPECT_TRUE(regular && ReadText(l.Dir(file)) == ReadText(template_ + "/" + file))
                    << where << ": lost or changed " << file << "\n"
                    << err;
            }
        struct stat reg {};
        if (::lstat(l.Dir("persons.txt").c_str(), &reg) == 0 && S_ISREG(reg.st_mode) &&
            reg.st_size < (1 << 20)) {
            std::vector<msmface::Person> listed;
            msmface::detail::parseRegistry(ReadText(l.Dir("persons.txt")), listed);
            int healthy = 0;
            for (const auto& p : listed)
                healthy += (p.id == 1 && p.name == "alice") || (p.id == 2 && p.name == "bob");
            EXPECT_EQ(healthy, 2) << where << ": alice or bob no longer listed\n" << err;
        }
        for (const auto& [name, bytes] : job.precious)
            EXPECT_TRUE(KeptInside(l.dir, name, bytes))
                << where << ": the user's " << name << " is gone from the directory\n"
                << err;
        if (!job.trap->storeFile) {
            const int loads = HealthyPersonsLoad(l.dir);
            const char* how = loads == 1       ? "does not open"
                              : loads == 2     ? "opens without alice or bob"
                              : loads == kHung ? "hangs when opened"
                                               : "crashes the opener";
            EXPECT_EQ(loads, 0) << where << ": afterwards the directory " << how << "\n" << err;
        }
        Remove(l.root);
    }

    // Every call against every trap, two programs at a time (the machine's cores); each call is
    // bounded in time on its own.
    void RunAll() {
        std::vector<std::pair<const Trap*, Call>> pending;
        for (const Trap& trap : Traps()) {
            const Layout first = Fresh(trap);
            for (const Call& call : Calls(first, template_)) pending.emplace_back(&trap, call);
            Remove(first.root);
        }
        std::reverse(pending.begin(), pending.end());
        constexpr std::size_t kAtOnce = 2;
        std::vector<std::pair<Job, std::chrono::steady_clock::time_point>> running;
        while (!pending.empty() || !running.empty()) {
            while (running.size() < kAtOnce && !pending.empty()) {
                running.emplace_back(
                    Start(*pending.back().first, pending.back().second),
                    std::chrono::steady_clock::now() + std::chrono::seconds(kHangSeconds));
                pending.pop_back();
            }
            for (std::size_t k = 0; k < running.size();) {
                int status = 0;
                const pid_t pid = running[k].first.run.pid;
                if (::waitpid(pid, &status, WNOHANG) == pid) {
                    status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
                } else if (std::chrono::steady_clock::now() > running[k].second) {
                    ::kill(pid, SIGKILL);
                    ::waitpid(pid, &status, 0);
                    status = kHung;
                } else {
                    ++k;
                    continue;
                }
                Check(running[k].first, status);
                running.erase(running.begin() + static_cast<std::ptrdiff_t>(k));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    clitest::Scratch work_{"msmface-trap-case"};
    mutable int cases_ = 0;
    static std::unique_ptr<clitest::Scratch> scratch_;
    static std::string template_, inputs_, outsideTemplate_;
};

std::unique_ptr<clitest::Scratch> TrapDirectory::scratch_;
std::string TrapDirectory::template_, TrapDirectory::inputs_, TrapDirectory::outsideTemplate_;

TEST_F(TrapDirectory, EveryCommandLeavesTheOutsideAndTheRegisteredPersonsAlone) {
    ASSERT_TRUE(fs::exists(template_ + "/constraint.list")) << "the healthy directory was not made";
    RunAll();
}

}  // namespace
