// A test host: synthetic camera frames of made-up people and the enrolment steps a real host
// takes, driven through the exported interface only.
#ifndef MSMFACE_TESTS_ENGINE_ENGINE_HOST_H
#define MSMFACE_TESTS_ENGINE_ENGINE_HOST_H

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <msmface/FaceRecognition.h>

#include "common/scratch_dir.h"

namespace enginetest {

constexpr int kFrameSide = 160;

using ScratchDir = msmtest::ScratchDir;

using msmtest::ReadBytes;

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline bool Exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// A made-up person: a face-like picture (dark eyes, brows, nostrils and mouth on a shaded oval)
// whose shapes, sizes and shading come from the seed. Every frame moves the feature points by a
// pixel or two and adds sensor noise, as a live camera would.
class SyntheticPerson {
  public:
    explicit SyntheticPerson(uint32_t seed) : seed_(seed) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<double> u(0.0, 1.0);
        eyeGap_ = 34 + 10 * u(rng);
        eyeY_ = 66 + 6 * u(rng);
        mouthY_ = eyeY_ + 44 + 10 * u(rng);
        noseY_ = eyeY_ + 26 + 6 * u(rng);
        mouthWidth_ = 24 + 12 * u(rng);
        eyeSize_ = 4 + 3 * u(rng);
        skin_ = 150 + 60 * u(rng);
        tilt_ = 40 * (u(rng) - 0.5);
        for (double& b : blobs_) b = u(rng);
    }

    // Frame `index`: the picture and its fourteen points. The same index gives the same frame.
    void Render(int index, BasicImageFile& frame, PartsPosition& parts) const {
        std::mt19937 rng(seed_ * 7919u + static_cast<uint32_t>(index));
        std::uniform_real_distribution<double> jitter(-1.5, 1.5);
        std::normal_distribution<double> noise(0.0, 4.0);
        const double dx = jitter(rng), dy = jitter(rng);
        const double cx = kFrameSide / 2.0 + dx;
        const double ex = eyeGap_ / 2;
        struct Pt {
            double x, y;
        };
        Pt p[14] = {{cx - ex, eyeY_ + dy},
                    {cx + ex, eyeY_ + dy},
                    {cx - 6, noseY_ + dy},
                    {cx + 6, noseY_ + dy},
                    {cx - mouthWidth_ / 2, mouthY_ + dy},
                    {cx + mouthWidth_ / 2, mouthY_ + dy},
                    {cx - ex - 8, eyeY_ + dy},
                    {cx - ex + 8, eyeY_ + dy},
                    {cx + ex - 8, eyeY_ + dy},
                    {cx + ex + 8, eyeY_ + dy},
                    {cx - 8, eyeY_ - 12 + dy},
                    {cx + 8, eyeY_ - 12 + dy},
                    {cx, noseY_ - 4 + dy},
                    {cx, mouthY_ + dy}};
        for (int k = 0; k < 14; ++k) {
            parts.points[2 * k] = static_cast<int32_t>(std::lround(p[k].x + jitter(rng) * 0.5));
            parts.points[2 * k + 1] = static_cast<int32_t>(std::lround(p[k].y + jitter(rng) * 0.5));
        }
        auto dark = [](double x, double y, double px, double py, double rx, double ry) {
            const double a = (x - px) / rx, b = (y - py) / ry;
            return std::exp(-(a * a + b * b));
        };
        for (int y = 0; y < kFrameSide; ++y)
            for (int x = 0; x < kFrameSide; ++x) {
                const double fx = (x - cx) / 45.0, fy = (y - (eyeY_ + 20 + dy)) / 60.0;
                double v = fx * fx + fy * fy < 1.0 ? skin_ + tilt_ * fx : 60.0 + 30.0 * blobs_[0];
                v += 25 * blobs_[1] * std::sin(x * (0.05 + 0.1 * blobs_[2]) + y * 0.07 * blobs_[3]);
                v -= 110 * dark(x, y, p[0].x, p[0].y, eyeSize_ * 1.6, eyeSize_);
                v -= 110 * dark(x, y, p[1].x, p[1].y, eyeSize_ * 1.6, eyeSize_);
                v -= 70 * dark(x, y, p[10].x - 6, p[10].y, 10, 2.5 + 2 * blobs_[4]);
                v -= 70 * dark(x, y, p[11].x + 6, p[11].y, 10, 2.5 + 2 * blobs_[4]);
                v -= 60 * dark(x, y, p[2].x, p[2].y, 3, 2);
                v -= 60 * dark(x, y, p[3].x, p[3].y, 3, 2);
                v -= 80 * dark(x, y, p[13].x, p[13].y, mouthWidth_ / 2, 3 + 3 * blobs_[5]);
                v += noise(rng);
                frame.pixels[y * kFrameSide + x] =
                    static_cast<unsigned char>(std::clamp(v, 0.0, 255.0));
            }
    }

  private:
    uint32_t seed_;
    double eyeGap_, eyeY_, mouthY_, noseY_, mouthWidth_, eyeSize_, skin_, tilt_;
    double blobs_[6];
};

// One engine with its dictionary folder and the host's person records.
class Host {
  public:
    // An engine for camera frames of width x height (the synthetic persons' by default).
    explicit Host(const std::string& dicPath, int width = kFrameSide, int height = kFrameSide)
        : engine(width, height), frame_(kFrameSide, kFrameSide, 8), face_(64, 64, 8) {
        engine.idDatabase->SetDicPath(dicPath.c_str());
        engine.idDatabase->InitIdDictionary(0);
    }

    // FaceCropping of one synthetic frame: 1 when it was used.
    int Crop(const SyntheticPerson& person, int index) {
        PartsPosition parts{};
        person.Render(index, frame_, parts);
        return engine.FaceCropping(&frame_, nullptr, &parts, &face_);
    }

    // One face frame through the frame cycle.
    int Frame(const SyntheticPerson& person, int index) {
        Crop(person, index);
        return engine.FrameProcess(2);
    }

    // The documented enrolment: pending name, registration mode, gathered frames, then the
    // database entry. True when the person was entered.
    bool Enrol(int id, const std::string& name, const SyntheticPerson& person, int firstFrame = 0) {
        return EnrolWith(id, name, [&](int k) { Frame(person, firstFrame + k); });
    }

    // The same with frames of the host's own: frame(k) runs the k-th gathered frame through the
    // frame cycle.
    template <typename FrameStep>
    bool EnrolWith(int id, const std::string& name, FrameStep frame) {
        if (!engine.idDatabase->CheckIDNum(id) || !engine.idDatabase->CheckIDName(name.c_str()) ||
            engine.idDatabase->SetNewKeyname(name.c_str()) != 1)
            return false;
        engine.Set_RecogORRegist(2);
        engine.Reset_gather_counter();
        for (int k = 0; engine.Get_RecogORRegist() == 2 && k < 1000; ++k) frame(k);
        if (!engine.Get_RegistCondition()) {
            engine.idDatabase->FreeNewKeyname();
            return false;
        }
        names_.push_back(name);
        records_.push_back(HumanID{id, const_cast<char*>(names_.back().c_str())});
        engine.idDatabase->AddNewDictionary(&records_.back());
        engine.idDatabase->ReadIdDictionaries();
        engine.DicConvertID(engine.idDatabase->GetAllNum() - 1);
        return true;
    }

    // Recognition of `frames` frames of a person from a fresh input; the best entry.
    RECOGRESULT Recognise(const SyntheticPerson& person, int firstFrame, int frames) {
        engine.Set_RecogORRegist(1);
        engine.Refresh_input();
        for (int k = 0; k < frames; ++k) Frame(person, firstFrame + k);
        return engine.Get_ResultRecog()[0];
    }

    // The records of the persons entered, in inside order.
    const std::deque<HumanID>& Records() const { return records_; }

    FaceRecognition engine;

  private:
    BasicImageFile frame_;
    BasicImageFile face_;
    std::deque<std::string> names_;  // stable addresses for the records
    std::deque<HumanID> records_;
};

}  // namespace enginetest

#endif  // MSMFACE_TESTS_ENGINE_ENGINE_HOST_H
