// Frames, boxes and model files that are not what the detector expects: one message each, never
// a crash.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <random>

#include "common/scratch_dir.h"
#include "detect_support.h"

namespace {

using detecttest::haveModel;
using detecttest::sharedDetector;
using msmface::ErrorKind;
using msmface::FrameView;
using msmface::PixelFormat;

#define REQUIRE_MODEL() \
    if (!haveModel()) GTEST_SKIP() << "no landmark model at " << msmface::kDefaultLandmarkModel

TEST(BadFrames, AreRefusedWithAMessageNamingTheFrame) {
    REQUIRE_MODEL();
    const msmface::Detector* detector = sharedDetector();
    ASSERT_NE(detector, nullptr);
    std::vector<unsigned char> pixels(64 * 64 * 3, 100);
    const unsigned char* p = pixels.data();
    const FrameView bad[] = {
        {nullptr, 64, 64, 0, PixelFormat::Grey},    // no pixels
        {p, 0, 64, 0, PixelFormat::Grey},           // no width
        {p, 64, -1, 0, PixelFormat::Grey},          // negative height
        {p, 16385, 1, 0, PixelFormat::Grey},        // absurdly wide
        {p, 1, 20000, 0, PixelFormat::Grey},        // absurdly tall
        {p, 64, 64, 63, PixelFormat::Grey},         // rows overlap
        {p, 20, 20, 59, PixelFormat::BGR},          // rows shorter than 3 bytes a pixel
        {p, 64, 64, -64, PixelFormat::Grey},        // negative stride
        {p, 8, 8, 0, static_cast<PixelFormat>(2)},  // no such format
    };
    for (const FrameView& frame : bad) {
        const auto result = detector->detect(frame);
        ASSERT_FALSE(result.ok()) << frame.width << " x " << frame.height << " stride "
                                  << frame.stride;
        EXPECT_EQ(result.status().kind(), ErrorKind::Argument);
        EXPECT_EQ(result.message().rfind("frame: ", 0), 0u) << result.message();
        EXPECT_EQ(result.message().find('\n'), std::string::npos);
        const auto fitted = detector->fit(frame, {0, 0, 8, 8});
        EXPECT_EQ(fitted.status().kind(), ErrorKind::Argument) << fitted.message();

        msmface::Follower follower(*detector);
        msmface::FacePoints points;
        EXPECT_FALSE(follower.findPoints(frame, points));
    }
}

TEST(BadFrames, TinyAndFeaturelessFramesHaveNoFace) {
    REQUIRE_MODEL();
    const msmface::Detector* detector = sharedDetector();
    ASSERT_NE(detector, nullptr);
    std::vector<unsigned char> pixels(3 * 4096, 0);
    std::mt19937 rng(3);
    for (unsigned char& v : pixels) v = static_cast<unsigned char>(rng());
    const FrameView frames[] = {
        {pixels.data(), 1, 1, 0, PixelFormat::Grey},
        {pixels.data(), 4096, 1, 0, PixelFormat::RGB},
        {pixels.data(), 1, 4096, 0, PixelFormat::Grey},
        {pixels.data(), 64, 64, 0, PixelFormat::BGR},  // noise
    };
    for (const FrameView& frame : frames) {
        const auto result = detector->detect(frame);
        ASSERT_TRUE(result.ok()) << result.message();
        EXPECT_TRUE(result->empty()) << frame.width << " x " << frame.height;
    }
}

TEST(BadBoxes, AreRefusedWithAMessageNamingTheBox) {
    REQUIRE_MODEL();
    const msmface::Detector* detector = sharedDetector();
    ASSERT_NE(detector, nullptr);
    std::vector<unsigned char> pixels(100 * 80, 90);
    const FrameView frame{pixels.data(), 100, 80, 0, PixelFormat::Grey};
    const msmface::FaceBox bad[] = {
        {10, 10, 0, 20},
        {10, 10, 20, -3},
        {100, 10, 20, 20},
        {10, 80, 20, 20},
        {-50, 10, 50, 20},
        {10, -30, 20, 30},
        {0, 0, 2147483647, 2147483647},
    };
    for (const auto& box : bad) {
        const auto result = detector->fit(frame, box);
        ASSERT_FALSE(result.ok()) << box.left << " " << box.top << " " << box.width;
        EXPECT_EQ(result.status().kind(), ErrorKind::Argument);
        EXPECT_EQ(result.message().rfind("box: ", 0), 0u) << result.message();
    }
    // A box that only partly overlaps the frame is fitted: the face may be cut by the border.
    const auto partly = detector->fit(frame, {-20, -20, 60, 60});
    EXPECT_TRUE(partly.ok()) << partly.message();
}

// The model file is chosen by the option, else the environment variable, else the default.
class ModelFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* env = std::getenv(msmface::kLandmarkModelEnvironment);
        if (env != nullptr) saved_ = env, hadEnv_ = true;
    }
    void TearDown() override {
        if (hadEnv_)
            ::setenv(msmface::kLandmarkModelEnvironment, saved_.c_str(), 1);
        else
            ::unsetenv(msmface::kLandmarkModelEnvironment);
    }
    static msmface::Result<msmface::Detector> create(const std::string& path) {
        msmface::DetectorOptions options;
        options.modelPath = path;
        return msmface::Detector::create(options);
    }

  private:
    std::string saved_;
    bool hadEnv_ = false;
};

TEST_F(ModelFiles, AMissingModelNamesTheFileAndThePackage) {
    msmtest::ScratchDir dir("detect_model");
    const std::string missing = dir / "no_such_model.dat";
    const auto result = create(missing);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.status().kind(), ErrorKind::NotFound);
    EXPECT_NE(result.message().find(missing), std::string::npos) << result.message();
    EXPECT_NE(result.message().find("libdlib-data"), std::string::npos) << result.message();
    EXPECT_EQ(result.message().find('\n'), std::string::npos);

    // Without an option the environment names the model; the option wins over it.
    const std::string fromEnv = dir / "from_environment.dat";
    ::setenv(msmface::kLandmarkModelEnvironment, fromEnv.c_str(), 1);
    const auto viaEnv = create("");
    ASSERT_FALSE(viaEnv.ok());
    EXPECT_NE(viaEnv.message().find(fromEnv), std::string::npos) << viaEnv.message();
    const auto viaOption = create(missing);
    EXPECT_NE(viaOption.message().find(missing), std::string::npos) << viaOption.message();
}

TEST_F(ModelFiles, TheDefaultModelIsTakenWhenNothingIsNamed) {
    REQUIRE_MODEL();
    ::unsetenv(msmface::kLandmarkModelEnvironment);
    const auto result = create("");
    EXPECT_TRUE(result.ok()) << result.message();
}

TEST_F(ModelFiles, DamagedModelsAreRefusedWithoutACrash) {
    REQUIRE_MODEL();
    msmtest::ScratchDir dir("detect_model");
    std::ifstream in(msmface::kDefaultLandmarkModel, std::ios::binary);
    std::vector<char> model((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_GT(model.size(), 1000000u);
    std::vector<char> garbage(4096);
    std::mt19937 rng(5);
    for (char& c : garbage) c = static_cast<char>(rng());
    std::vector<char> flipped(model.begin(), model.begin() + 1000000);
    flipped[3] = static_cast<char>(flipped[3] ^ 0x7F);  // the first length field
    const std::pair<std::string, std::vector<char>> damaged[] = {
        {"empty.dat", {}},
        {"garbage.dat", garbage},
        {"first_kilobyte.dat", std::vector<char>(model.begin(), model.begin() + 1024)},
        {"first_megabyte.dat", std::vector<char>(model.begin(), model.begin() + 1000000)},
        {"half.dat", std::vector<char>(model.begin(), model.begin() + model.size() / 2)},
        {"all_but_the_last_byte.dat", std::vector<char>(model.begin(), model.end() - 1)},
        {"flipped_length.dat", flipped},
    };
    for (const auto& [name, bytes] : damaged) {
        const std::string path = dir / name;
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<long>(bytes.size()));
        const auto result = create(path);
        ASSERT_FALSE(result.ok()) << name;
        EXPECT_EQ(result.status().kind(), ErrorKind::File) << name;
        EXPECT_NE(result.message().find(path), std::string::npos) << result.message();
        EXPECT_EQ(result.message().find('\n'), std::string::npos);
    }
    // A folder where the model should be.
    const auto folder = create(dir.path());
    EXPECT_EQ(folder.status().kind(), ErrorKind::File) << folder.message();
}

// A pipe, a device or a folder named as the model is refused at once: waiting for a writer that
// never comes, or reading /dev/zero until memory runs out, is no answer. The model is never
// needed for this, so the test runs without it.
TEST_F(ModelFiles, PipesAndDevicesAreRefusedWithoutWaiting) {
    msmtest::ScratchDir dir("detect_model");
    const std::string fifo = dir / "model.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, std::string("/dev/zero"), dir.path()}) {
        auto pending = std::async(std::launch::async, [path] { return create(path); });
        if (pending.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            ADD_FAILURE() << path << ": Detector::create still waits after 20 s";
            // Lets a reader blocked on the pipe go, so that the test ends.
            const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) ::close(fd);
            pending.wait();
            continue;
        }
        const auto result = pending.get();
        ASSERT_FALSE(result.ok()) << path;
        EXPECT_EQ(result.status().kind(), ErrorKind::File) << result.message();
        EXPECT_NE(result.message().find(path + " is not a regular file"), std::string::npos)
            << result.message();
        EXPECT_EQ(result.message().find('\n'), std::string::npos);
    }
}

TEST(MovedDetector, RefusesInsteadOfCrashing) {
    REQUIRE_MODEL();
    auto created = msmface::Detector::create();
    ASSERT_TRUE(created.ok()) << created.message();
    msmface::Detector detector = std::move(created).value();
    msmface::Detector other = std::move(detector);
    std::vector<unsigned char> pixels(32 * 32, 0);
    const FrameView frame{pixels.data(), 32, 32, 0, PixelFormat::Grey};
    EXPECT_EQ(detector.detect(frame).status().kind(),
              ErrorKind::Argument);  // NOLINT: moved on purpose
    EXPECT_TRUE(other.detect(frame).ok());
}

}  // namespace
