// The face descriptor against descriptors computed by an independent conversion of the same
// weights, on its own chips and on chips cut here; what it makes of real faces; and the faces,
// chips and model files it must refuse.
#ifdef MSMFACE_HAVE_DESCRIPTOR
#include <msmface/descriptor.h>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "common/pgm.h"
#include "common/scratch_dir.h"
#include "detect/descriptor/weights_manifest.h"
#include "detect_support.h"

namespace {

using msmface::Descriptor;
using msmface::ErrorKind;
using msmface::FaceDescriptor;
using msmface::FrameView;
using msmface::PixelFormat;

std::string referenceFolder() {
    return std::string(MSMFACE_SHARED_DIR) + "/descriptor";
}

// The installed model, loaded once; null when it is not installed.
const Descriptor* sharedDescriptor() {
    static const std::vector<Descriptor> loaded = [] {
        std::vector<Descriptor> d;
        if (auto r = Descriptor::load()) d.push_back(std::move(r).value());
        return d;
    }();
    return loaded.empty() ? nullptr : &loaded.front();
}

#define REQUIRE_DESCRIPTOR()                                                             \
    const Descriptor* descriptor = sharedDescriptor();                                   \
    if (descriptor == nullptr)                                                           \
    GTEST_SKIP() << "no descriptor model in " << msmface::defaultDescriptorModelFolder() \
                 << " (./quickstart test installs it)"

#define REQUIRE_MODEL_FILES() \
    if (!haveModel())         \
    GTEST_SKIP() << "no descriptor model in " << msmface::defaultDescriptorModelFolder()

#define REQUIRE_REFERENCES()                                              \
    if (!std::filesystem::exists(referenceFolder() + "/descriptors.csv")) \
    GTEST_SKIP() << "no reference descriptors in " << referenceFolder()

std::vector<std::vector<std::string>> readCsv(const std::string& path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::stringstream s(line);
        for (std::string f; std::getline(s, f, ',');) fields.push_back(f);
        rows.push_back(std::move(fields));
    }
    return rows;
}

using detecttest::cosine;

struct Reference {
    std::string chip, frame;
    FaceDescriptor descriptor{};
    std::array<float, 136> landmarks{};
};

// The six reference chips with their descriptors and the landmarks they were cut from.
std::vector<Reference> references() {
    std::map<std::string, Reference> byChip;
    for (const auto& row : readCsv(referenceFolder() + "/descriptors.csv")) {
        if (row.size() != 129) continue;
        Reference& r = byChip[row[0]];
        r.chip = row[0];
        for (int i = 0; i < 128; ++i) r.descriptor[i] = std::stof(row[1 + i]);
    }
    for (const auto& row : readCsv(referenceFolder() + "/landmarks.csv")) {
        if (row.size() != 138 || !byChip.count(row[1])) continue;
        Reference& r = byChip[row[1]];
        r.frame = row[0];
        for (int i = 0; i < 136; ++i) r.landmarks[i] = std::stof(row[2 + i]);
    }
    std::vector<Reference> out;
    for (auto& [name, r] : byChip) out.push_back(r);
    return out;
}

detecttest::GreyFrame readChip(const std::string& name) {
    const cv::Mat m = cv::imread(referenceFolder() + "/" + name, cv::IMREAD_GRAYSCALE);
    detecttest::GreyFrame f;
    if (m.empty() || !m.isContinuous()) return f;
    f.width = m.cols;
    f.height = m.rows;
    f.pixels.assign(m.datastart, m.dataend);
    return f;
}

detecttest::GreyFrame readFrame(const std::string& relative) {
    detecttest::GreyFrame f;
    msmtest::ReadPgm(detecttest::facesFolder() + "/" + relative, f.width, f.height, f.pixels);
    return f;
}

TEST(DescriptorReference, SixChipsGiveTheirReferenceDescriptors) {
    REQUIRE_REFERENCES();
    REQUIRE_DESCRIPTOR();
    const auto refs = references();
    ASSERT_EQ(refs.size(), 6u);
    for (const Reference& r : refs) {
        const detecttest::GreyFrame chip = readChip(r.chip);
        ASSERT_EQ(chip.width, msmface::kDescriptorChipSide) << r.chip;
        const auto d = descriptor->computeChip(chip.view());
        ASSERT_TRUE(d.ok()) << d.message();
        double length = 0;
        for (float v : *d) length += static_cast<double>(v) * v;
        EXPECT_NEAR(length, 1.0, 1e-5) << r.chip;
        const double c = cosine(*d, r.descriptor);
        // Same weights, only the order of float sums differs.
        constexpr double kMinCosine = 0.9999;
        EXPECT_GE(c, kMinCosine) << r.chip << ": 1 - cosine = " << 1 - c;
    }
}

TEST(DescriptorReference, ChipsCutHereFromTheLandmarksAgree) {
    REQUIRE_REFERENCES();
    REQUIRE_DESCRIPTOR();
    for (const Reference& r : references()) {
        const detecttest::GreyFrame frame = readFrame(r.frame);
        ASSERT_GT(frame.width, 0) << r.frame;
        const auto chip = msmface::cutFaceChip(frame.view(), r.landmarks);
        ASSERT_TRUE(chip.ok()) << r.frame << ": " << chip.message();
        // The chip itself: grey replicated, and the same pixels as the reference up to rounding.
        const detecttest::GreyFrame reference = readChip(r.chip);
        ASSERT_EQ(reference.pixels.size() * 3, chip->rgb.size());
        double diff = 0;
        for (std::size_t i = 0; i < reference.pixels.size(); ++i) {
            ASSERT_EQ(chip->rgb[3 * i], chip->rgb[3 * i + 1]);
            ASSERT_EQ(chip->rgb[3 * i], chip->rgb[3 * i + 2]);
            diff += std::abs(chip->rgb[3 * i] - reference.pixels[i]);
        }
        EXPECT_LT(diff / reference.pixels.size(), 1.0) << r.chip;

        msmface::DetectedFace face;
        face.landmarks = r.landmarks;
        const auto d = descriptor->compute(frame.view(), face);
        ASSERT_TRUE(d.ok()) << d.message();
        const double c = cosine(*d, r.descriptor);
        // The chip cut by other code from the same landmarks.
        constexpr double kMinCosine = 0.99;
        EXPECT_GE(c, kMinCosine) << r.chip << ": 1 - cosine = " << 1 - c;
    }
}

TEST(DescriptorReference, ColourFramesOfTheSameGreyGiveTheSameChip) {
    REQUIRE_REFERENCES();
    const Reference r = references().front();
    const detecttest::GreyFrame grey = readFrame(r.frame);
    ASSERT_GT(grey.width, 0);
    // The same picture as RGB and as BGR, with rows padded to a wider stride.
    const int stride = 3 * grey.width + 7;
    std::vector<unsigned char> colour(static_cast<std::size_t>(stride) * grey.height, 0);
    for (int y = 0; y < grey.height; ++y)
        for (int x = 0; x < grey.width; ++x)
            for (int c = 0; c < 3; ++c)
                colour[y * stride + 3 * x + c] = grey.pixels[y * grey.width + x];
    const auto fromGrey = msmface::cutFaceChip(grey.view(), r.landmarks);
    ASSERT_TRUE(fromGrey.ok()) << fromGrey.message();
    for (PixelFormat format : {PixelFormat::RGB, PixelFormat::BGR}) {
        const FrameView view{colour.data(), grey.width, grey.height, stride, format};
        const auto chip = msmface::cutFaceChip(view, r.landmarks);
        ASSERT_TRUE(chip.ok()) << chip.message();
        EXPECT_EQ(chip->rgb, fromGrey->rgb);
    }
    // Colour order matters: a red left half in a BGR frame is red in the chip, not blue.
    std::vector<unsigned char> bgr(colour.size(), 0);
    for (int y = 0; y < grey.height; ++y)
        for (int x = 0; x < grey.width; ++x) bgr[y * stride + 3 * x + 2] = 200;  // red
    const auto red = msmface::cutFaceChip(
        FrameView{bgr.data(), grey.width, grey.height, stride, PixelFormat::BGR}, r.landmarks);
    ASSERT_TRUE(red.ok()) << red.message();
    const std::size_t middle = 3 * (75 * msmface::kDescriptorChipSide + 75);
    EXPECT_EQ(red->rgb[middle], 200);
    EXPECT_EQ(red->rgb[middle + 2], 0);
}

// Real faces found by the detector: one person's frames are closer to each other than to the
// frames of other persons.
TEST(DescriptorRealFaces, OnePersonsFramesAreCloserThanOtherPersons) {
    REQUIRE_DESCRIPTOR();
    const msmface::Detector* detector = detecttest::sharedDetector();
    if (detector == nullptr) GTEST_SKIP() << "no landmark model";
    const auto faces = detecttest::loadRealFaces(1);
    if (faces.empty()) GTEST_SKIP() << "no real faces in " << detecttest::facesFolder();
    // Two frames each of the first persons, a training and a test frame (other videos).
    std::map<std::string, std::vector<FaceDescriptor>> byPerson;
    for (const auto& face : faces) {
        if (byPerson.size() >= 12 && !byPerson.count(face.identity)) continue;
        auto& mine = byPerson[face.identity];
        if (mine.size() >= 2) continue;
        const auto found = detector->detect(face.frame.view());
        ASSERT_TRUE(found.ok()) << found.message();
        if (found->empty()) continue;
        const auto d = descriptor->compute(face.frame.view(), found->front());
        if (d.ok()) mine.push_back(*d);
    }
    std::vector<std::pair<std::string, std::vector<FaceDescriptor>>> persons;
    for (auto& p : byPerson)
        if (p.second.size() == 2) persons.push_back(p);
    ASSERT_GE(persons.size(), 8u);
    // For each person, its own two frames are closer than either is to any other person's.
    int closer = 0;
    for (std::size_t i = 0; i < persons.size(); ++i) {
        const double same = cosine(persons[i].second[0], persons[i].second[1]);
        double other = -1;
        for (std::size_t j = 0; j < persons.size(); ++j)
            if (j != i)
                for (const auto& a : persons[i].second)
                    for (const auto& b : persons[j].second) other = std::max(other, cosine(a, b));
        closer += same > other;
    }
    EXPECT_GE(closer, static_cast<int>(persons.size()) - 1) << "of " << persons.size();
}

TEST(DescriptorBadFaces, AreRefusedWithOneLine) {
    REQUIRE_REFERENCES();
    const Reference r = references().front();
    const detecttest::GreyFrame frame = readFrame(r.frame);
    ASSERT_GT(frame.width, 0);
    auto moved = [&](double scale, double dx, double dy) {
        std::array<float, 136> l = r.landmarks;
        for (std::size_t i = 0; i < l.size(); i += 2) {
            l[i] = static_cast<float>(l[i] * scale + dx);
            l[i + 1] = static_cast<float>(l[i + 1] * scale + dy);
        }
        return l;
    };
    double cx = 0, cy = 0;
    for (std::size_t i = 0; i < r.landmarks.size(); i += 2)
        cx += r.landmarks[i] / 68.0, cy += r.landmarks[i + 1] / 68.0;
    std::array<float, 136> nan = r.landmarks;
    nan[41] = std::numeric_limits<float>::quiet_NaN();
    std::array<float, 136> huge = r.landmarks;
    huge[0] = 3e9f;
    const std::pair<std::array<float, 136>, const char*> bad[] = {
        {nan, "point 20"},
        {huge, "point 0"},
        {moved(0.4, 0, 0), "too small"},
        // The face's centre a few pixels inside a corner: most of its chip is outside.
        {moved(1, 3 - cx, 3 - cy), "too close to the border"},
        {moved(1, frame.width - 4 - cx, frame.height - 4 - cy), "too close to the border"},
        {moved(1, -frame.width, 0), "outside the"},
    };
    for (const auto& [landmarks, reason] : bad) {
        const auto chip = msmface::cutFaceChip(frame.view(), landmarks);
        ASSERT_FALSE(chip.ok()) << reason;
        EXPECT_EQ(chip.status().kind(), ErrorKind::Argument);
        EXPECT_NE(chip.message().find(reason), std::string::npos) << chip.message();
        EXPECT_EQ(chip.message().find('\n'), std::string::npos);
    }
    // A bad view: the frame's own message.
    const auto nullView =
        msmface::cutFaceChip(FrameView{nullptr, 10, 10, 0, PixelFormat::Grey}, r.landmarks);
    EXPECT_EQ(nullView.status().kind(), ErrorKind::Argument);
    EXPECT_EQ(nullView.message().rfind("frame: ", 0), 0u) << nullView.message();
}

TEST(DescriptorBadFaces, ChipsOfAnotherSizeOrNoPixelsAreRefused) {
    REQUIRE_DESCRIPTOR();
    std::vector<unsigned char> pixels(3 * 151 * 151, 128);
    const FrameView bad[] = {
        {pixels.data(), 149, 150, 0, PixelFormat::Grey},
        {pixels.data(), 150, 151, 0, PixelFormat::RGB},
        {nullptr, 150, 150, 0, PixelFormat::Grey},
        {pixels.data(), 150, 150, 100, PixelFormat::Grey},
    };
    for (const FrameView& chip : bad) {
        const auto d = descriptor->computeChip(chip);
        ASSERT_FALSE(d.ok());
        EXPECT_EQ(d.status().kind(), ErrorKind::Argument);
        EXPECT_EQ(d.message().find('\n'), std::string::npos);
    }
    const auto grey = descriptor->computeChip({pixels.data(), 150, 150, 0, PixelFormat::Grey});
    const auto rgb = descriptor->computeChip({pixels.data(), 150, 150, 0, PixelFormat::RGB});
    ASSERT_TRUE(grey.ok() && rgb.ok());
    EXPECT_EQ(*grey, *rgb);

    // A colour chip: the same picture as RGB bytes and as BGR bytes is the same descriptor, and
    // red and blue are not interchangeable.
    std::mt19937 rng(7);
    std::vector<unsigned char> rgbBytes(3 * 150 * 150), bgrBytes(rgbBytes.size());
    for (std::size_t i = 0; i < rgbBytes.size(); i += 3) {
        const unsigned char v = static_cast<unsigned char>(rng() % 256);
        rgbBytes[i] = v;
        rgbBytes[i + 1] = static_cast<unsigned char>(v / 2);
        rgbBytes[i + 2] = static_cast<unsigned char>(255 - v);
        bgrBytes[i] = rgbBytes[i + 2];
        bgrBytes[i + 1] = rgbBytes[i + 1];
        bgrBytes[i + 2] = rgbBytes[i];
    }
    const auto asRgb = descriptor->computeChip({rgbBytes.data(), 150, 150, 0, PixelFormat::RGB});
    const auto asBgr = descriptor->computeChip({bgrBytes.data(), 150, 150, 0, PixelFormat::BGR});
    const auto swapped = descriptor->computeChip({bgrBytes.data(), 150, 150, 0, PixelFormat::RGB});
    ASSERT_TRUE(asRgb.ok() && asBgr.ok() && swapped.ok());
    EXPECT_EQ(*asRgb, *asBgr);
    EXPECT_LT(cosine(*asRgb, *swapped), 0.999);
}

// Copies of the installed model, damaged in one way each.
class DescriptorModelFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* env = std::getenv(msmface::kDescriptorModelEnvironment);
        if (env != nullptr) saved_ = env, hadEnv_ = true;
        const std::string installed = msmface::defaultDescriptorModelFolder();
        manifest_ = msmtest::ReadBytes(installed + "/" + msmface::kDescriptorManifestFile);
        weights_ = msmtest::ReadBytes(installed + "/" + msmface::kDescriptorWeightsFile);
    }
    bool haveModel() const { return !manifest_.empty() && !weights_.empty(); }
    void TearDown() override {
        if (hadEnv_)
            ::setenv(msmface::kDescriptorModelEnvironment, saved_.c_str(), 1);
        else
            ::unsetenv(msmface::kDescriptorModelEnvironment);
    }
    // The folder with the two files as given.
    std::string write(const std::vector<unsigned char>& manifest,
                      const std::vector<unsigned char>& weights) {
        put(dir_ / msmface::kDescriptorManifestFile, manifest);
        put(dir_ / msmface::kDescriptorWeightsFile, weights);
        return dir_.path();
    }
    static void put(const std::string& path, const std::vector<unsigned char>& bytes) {
        std::ofstream(path, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }
    static msmface::Result<Descriptor> load(const std::string& path) {
        msmface::DescriptorOptions options;
        options.modelPath = path;
        options.threads = 0;
        return Descriptor::load(options);
    }
    std::string text() const { return std::string(manifest_.begin(), manifest_.end()); }
    static std::vector<unsigned char> bytes(const std::string& s) { return {s.begin(), s.end()}; }

    msmtest::ScratchDir dir_{"descriptor_model"};
    std::vector<unsigned char> manifest_, weights_;

  private:
    std::string saved_;
    bool hadEnv_ = false;
};

void expectRefused(const msmface::Result<Descriptor>& r, ErrorKind kind, const std::string& part,
                   const char* what) {
    ASSERT_FALSE(r.ok()) << what;
    EXPECT_EQ(r.status().kind(), kind) << what << ": " << r.message();
    EXPECT_NE(r.message().find(part), std::string::npos) << what << ": " << r.message();
    EXPECT_EQ(r.message().find('\n'), std::string::npos) << what << ": " << r.message();
}

TEST_F(DescriptorModelFiles, AMissingModelNamesTheCommandThatInstallsIt) {
    const std::string missing = dir_ / "nowhere";
    expectRefused(load(missing), ErrorKind::NotFound, missing, "missing folder");
    expectRefused(load(missing), ErrorKind::NotFound, "./quickstart test", "missing folder");
    REQUIRE_MODEL_FILES();
    // Manifest there, weights not.
    put(dir_ / msmface::kDescriptorManifestFile, manifest_);
    expectRefused(load(dir_.path()), ErrorKind::NotFound, msmface::kDescriptorWeightsFile,
                  "missing weights");

    // The environment names the model when the option does not; the option wins.
    write(manifest_, weights_);
    ::setenv(msmface::kDescriptorModelEnvironment, missing.c_str(), 1);
    expectRefused(Descriptor::load({"", 0}), ErrorKind::NotFound, missing, "environment");
    EXPECT_TRUE(load(dir_.path()).ok());
    ::setenv(msmface::kDescriptorModelEnvironment, dir_.path().c_str(), 1);
    EXPECT_TRUE(Descriptor::load({"", 0}).ok());
    // The manifest itself may be named instead of its folder.
    EXPECT_TRUE(load(dir_ / msmface::kDescriptorManifestFile).ok());
}

// OpenCV's thread count is the process's: load() sets it only as the options say.
TEST_F(DescriptorModelFiles, LoadSetsOpenCvsThreadsOnlyWhenAsked) {
    REQUIRE_MODEL_FILES();
    const int before = cv::getNumThreads();
    const std::string folder = write(manifest_, weights_);
    cv::setNumThreads(3);
    ASSERT_TRUE(load(folder).ok());  // threads = 0
    EXPECT_EQ(cv::getNumThreads(), 3);
    ASSERT_TRUE(Descriptor::load({folder}).ok());  // the default
    EXPECT_EQ(cv::getNumThreads(), 1);
    ASSERT_TRUE(Descriptor::load({folder, 2}).ok());
    EXPECT_EQ(cv::getNumThreads(), 2);
    const auto negative = Descriptor::load({folder, -1});
    EXPECT_EQ(negative.status().kind(), ErrorKind::Argument);
    EXPECT_EQ(cv::getNumThreads(), 2);
    cv::setNumThreads(before);
}

TEST_F(DescriptorModelFiles, DamagedModelsAreRefusedWithOneLine) {
    REQUIRE_MODEL_FILES();
    auto shorter = weights_;
    shorter.resize(weights_.size() - 1000);
    expectRefused(load(write(manifest_, shorter)), ErrorKind::File, "expected 6444032",
                  "truncated weights");
    auto longer = weights_;
    longer.push_back(0);
    expectRefused(load(write(manifest_, longer)), ErrorKind::File, "expected 6444032",
                  "longer weights");
    expectRefused(load(write({}, weights_)), ErrorKind::File, "not JSON", "empty manifest");
    auto cut = manifest_;
    cut.resize(manifest_.size() / 2);
    expectRefused(load(write(cut, weights_)), ErrorKind::File, "not JSON", "truncated manifest");
    // A bit flipped in the structure: '[' (0x5b) becomes '{' (0x7b).
    auto flipped = manifest_;
    flipped[text().find('[')] ^= 0x20;
    expectRefused(load(write(flipped, weights_)), ErrorKind::File, "not JSON", "flipped bracket");

    // Well-formed manifests of another network.
    std::string t = text();
    std::string renamed = t;
    renamed.replace(renamed.find("conv128_1/conv1"), 15, "conv128_9/conv1");
    expectRefused(load(write(bytes(renamed), weights_)), ErrorKind::File, "conv128_1/conv1",
                  "renamed tensor");
    std::string reshaped = t;
    reshaped.replace(reshaped.find("[3,3,32,32]"), 11, "[3,3,16,64]");
    expectRefused(load(write(bytes(reshaped), weights_)), ErrorKind::File, "needs [3,3,32,32]",
                  "reshaped tensor");

    // A weight that is not a number: the first unquantised filter, in place.
    const auto manifest = msmface::detail::parseWeightsManifest(t);
    ASSERT_TRUE(manifest.ok());
    std::size_t offset = 0;
    for (const auto& tensor : manifest->tensors)
        if (!tensor.quantised) {
            offset = tensor.offset;
            break;
        }
    ASSERT_GT(offset, 0u);
    auto nan = weights_;
    const unsigned char quietNan[4] = {0, 0, 0xc0, 0x7f};
    std::copy(quietNan, quietNan + 4, nan.begin() + static_cast<long>(offset) + 40);
    expectRefused(load(write(manifest_, nan)), ErrorKind::File, "not a finite number",
                  "NaN weight");

    // Neither a folder nor a pipe stands in for a file; a pipe is never waited on.
    std::filesystem::remove(dir_ / msmface::kDescriptorWeightsFile);
    std::filesystem::create_directory(dir_ / msmface::kDescriptorWeightsFile);
    expectRefused(load(dir_.path()), ErrorKind::File, "not a regular file", "folder");
    std::filesystem::remove(dir_ / msmface::kDescriptorWeightsFile);
    ASSERT_EQ(::mkfifo((dir_ / msmface::kDescriptorWeightsFile).c_str(), 0600), 0);
    expectRefused(load(dir_.path()), ErrorKind::File, "not a regular file", "pipe");
}

TEST_F(DescriptorModelFiles, AnySingleBitFlipOfTheManifestLoadsOrIsRefusedWithOneLine) {
    REQUIRE_MODEL_FILES();
    std::mt19937 rng(18);
    std::uniform_int_distribution<std::size_t> at(0, manifest_.size() - 1);
    int refused = 0;
    for (int i = 0; i < 40; ++i) {
        auto flipped = manifest_;
        flipped[at(rng)] ^= static_cast<unsigned char>(1u << (rng() % 8));
        const auto r = load(write(flipped, weights_));
        if (r.ok()) continue;
        ++refused;
        EXPECT_EQ(r.status().kind(), ErrorKind::File) << r.message();
        EXPECT_FALSE(r.message().empty());
        EXPECT_EQ(r.message().find('\n'), std::string::npos) << r.message();
    }
    // Most bytes are structure, names and shapes: most flips must be caught.
    EXPECT_GT(refused, 20);
}

}  // namespace
#endif
