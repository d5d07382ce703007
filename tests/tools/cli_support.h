// Running the built msmface program as a user would, and the files a user hands it: synthetic
// camera frames written as PGM with their points files.
#ifndef MSMFACE_TESTS_TOOLS_CLI_SUPPORT_H
#define MSMFACE_TESTS_TOOLS_CLI_SUPPORT_H

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/videoio.hpp>

#include "common/scratch_dir.h"
#include "tools/synth/synth_face.h"

namespace clitest {

struct CliRun {
    int status = -1;  // the exit code
    std::string out;
    std::string err;
    // Lines of standard error, without the empty last one.
    std::vector<std::string> errLines() const {
        std::vector<std::string> lines;
        std::istringstream in(err);
        for (std::string l; std::getline(in, l);) lines.push_back(l);
        return lines;
    }
};

// A refusal as the program gives it: a non-zero exit and one line "msmface: ..." holding what,
// nothing on standard output.
inline void ExpectOneLineFailure(const CliRun& r, const std::string& what) {
    EXPECT_NE(r.status, 0);
    ASSERT_EQ(r.errLines().size(), 1u) << r.err;
    EXPECT_THAT(r.err,
                ::testing::AllOf(::testing::StartsWith("msmface: "), ::testing::HasSubstr(what)));
    EXPECT_EQ(r.out, "");
}

inline std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline bool Exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

using Scratch = msmtest::ScratchDir;

// Names in a folder, sorted.
inline std::vector<std::string> Entries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            const std::string n = e->d_name;
            // The directory's lock file is there from the first writer on and holds nothing.
            if (n != "." && n != ".." && n != ".msmface.lock") names.push_back(n);
        }
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Runs the program with arguments (given as one shell-quoted string) in folder cwd.
inline CliRun RunCli(const std::string& args, const std::string& cwd = ".") {
    static int counter = 0;
    const std::string errPath =
        "/tmp/msmface-cli-err-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
    const std::string command =
        "cd '" + cwd + "' && '" MSMFACE_CLI_PATH "' " + args + " 2>'" + errPath + "'";
    CliRun r;
    if (std::FILE* p = ::popen(command.c_str(), "r")) {
        char buf[4096];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
        const int status = ::pclose(p);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    r.err = ReadText(errPath);
    ::unlink(errPath.c_str());
    return r;
}

inline void WritePgm(const std::string& path, int width, int height,
                     const std::vector<unsigned char>& pixels) {
    std::ofstream out(path, std::ios::binary);
    out << "P5\n" << width << " " << height << "\n255\n";
    out.write(reinterpret_cast<const char*>(pixels.data()),
              static_cast<std::streamsize>(pixels.size()));
}

// Renders frames first ... first + count - 1 of take `take` of synthetic person `index` into
// folder as <stem>_<k>.pgm and returns the points-file lines for them ("name x0 y0 ... y13").
inline std::vector<std::string> WriteTake(const std::string& folder, const std::string& stem,
                                          int index, uint32_t take, int count, int first = 0) {
    const msmsynth::SynthPerson person = msmsynth::makePerson(7, index);
    std::vector<std::string> lines;
    int k = 0;
    const std::vector<msmsynth::SynthPose> poses =
        msmsynth::makeSequence(take, first + count, 320, 240);
    for (std::size_t f0 = static_cast<std::size_t>(first); f0 < poses.size(); ++f0) {
        const msmsynth::SynthPose& pose = poses[f0];
        const msmsynth::SynthFrame f = msmsynth::renderFrame(person, pose, 320, 240);
        const std::string name = stem + "_" + std::to_string(k++) + ".pgm";
        WritePgm(folder + "/" + name, f.width, f.height, f.pixels);
        std::ostringstream line;
        line << name;
        for (float v : f.points) line << " " << v;
        lines.push_back(line.str());
    }
    return lines;
}

// A face manifest of `persons` synthetic persons (identities P0, P1, ...), each with two takes
// as videos 0 (12 frames) and 1 (6 frames), written with its frames into folder; returns its
// path.
inline std::string WriteSyntheticManifest(const std::string& folder, int persons) {
    std::string manifest = "identity,video,frame,split,image,width,height";
    for (int k = 0; k < 14; ++k) manifest += ",x" + std::to_string(k) + ",y" + std::to_string(k);
    manifest += "\n";
    for (int p = 0; p < persons; ++p)
        for (int v = 0; v < 2; ++v) {
            const std::string stem = "p" + std::to_string(p) + "v" + std::to_string(v);
            for (const std::string& line :
                 WriteTake(folder, stem, p, 300 + 10 * p + v, v == 0 ? 12 : 6)) {
                std::istringstream fields(line);
                std::string name;
                fields >> name;
                manifest +=
                    "P" + std::to_string(p) + "," + std::to_string(v) + ",0,x," + name + ",320,240";
                for (std::string x; fields >> x;) manifest += "," + x;
                manifest += "\n";
            }
        }
    const std::string path = folder + "/m.csv";
    WriteText(path, manifest);
    return path;
}

// Frames written as an MJPG AVI, which Debian's OpenCV writes and reads without extra codecs.
// False when the video does not read back with as many frames.
inline bool WriteVideo(const std::string& path, const std::vector<cv::Mat>& frames,
                       double fps = 25) {
    if (frames.empty()) return false;
    cv::VideoWriter writer(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), fps,
                           frames.front().size(), frames.front().channels() == 3);
    if (!writer.isOpened()) return false;
    for (const cv::Mat& f : frames) writer.write(f);
    writer.release();
    cv::VideoCapture check(path, cv::CAP_FFMPEG);
    int count = 0;
    for (cv::Mat f; check.read(f);) ++count;
    return count == static_cast<int>(frames.size());
}

// The first line of recognise's ranking naming this person.
inline std::string TopLine(int id, const std::string& name) {
    char line[128];  // key names are at most 64 characters
    std::snprintf(line, sizeof line, "   1 %4d  %s ", id, name.c_str());
    return line;
}

inline std::string Join(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& l : lines) text += l + "\n";
    return text;
}

}  // namespace clitest

#endif  // MSMFACE_TESTS_TOOLS_CLI_SUPPORT_H
