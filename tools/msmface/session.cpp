#include "session.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

namespace msmcli {
namespace {

constexpr int kCameraWidth = 320;  // replaced by each enrolment's own frame size
constexpr int kCameraHeight = 240;
constexpr int kFaceSide = 64;

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// The engine reports some failures on standard error in its own words; where the program says
// what went wrong itself, those lines would only confuse.
class QuietStandardError {
  public:
    QuietStandardError() {
        std::fflush(stderr);
        saved_ = ::dup(2);
        const int null = ::open("/dev/null", O_WRONLY);
        if (saved_ >= 0 && null >= 0) ::dup2(null, 2);
        if (null >= 0) ::close(null);
    }
    ~QuietStandardError() {
        std::fflush(stderr);
        if (saved_ >= 0) {
            ::dup2(saved_, 2);
            ::close(saved_);
        }
    }
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;

  private:
    int saved_ = -1;
};

int32_t toPixel(double v) {
    // Anything the engine would not call a point (negative or beyond its range) stays "absent".
    if (!(v > -1.0e6 && v < 1.0e6)) return 9999;
    return static_cast<int32_t>(std::lround(v));
}

std::string absolute(const std::string& dir) {
    char buf[PATH_MAX];
    return ::realpath(dir.c_str(), buf) != nullptr ? std::string(buf) : dir;
}

}  // namespace

std::vector<Frame> jitterFrames(const std::vector<Frame>& frames, int copies, double pixels,
                                uint32_t seed) {
    std::vector<Frame> out;
    if (copies < 1) copies = 1;
    out.reserve(frames.size() * static_cast<std::size_t>(copies));
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> shift(-pixels, pixels);
    for (int c = 0; c < copies; ++c)
        for (const Frame& f : frames) {
            Frame j = f;
            if (c > 0 && pixels > 0)
                for (double& v : j.points) v += shift(rng);
            out.push_back(std::move(j));
        }
    return out;
}

Session::Session() : engine_(new FaceRecognition(kCameraWidth, kCameraHeight)) {}

std::string Session::open(const std::string& dir) {
    struct stat st {};
    if (dir.empty()) return "the dictionary directory: expected a folder name";
    if (::stat(dir.c_str(), &st) != 0)
        return dir + ": the dictionary directory does not exist (" + std::strerror(errno) + ")";
    if (!S_ISDIR(st.st_mode)) return dir + ": expected a dictionary directory, found a file";
    if (dir.size() > 200) return dir + ": the directory name is too long (at most 200 characters)";
    dir_ = dir;
    std::vector<Person> listed;
    std::string error = loadRegistry(dir, listed);
    if (!error.empty()) return error;
    persons_.clear();
    orphans_.clear();
    for (const Person& p : listed)
        (exists(dir + "/" + p.name + ".dck") ? persons_ : orphans_).push_back(p);
    return loadDictionaries();
}

std::string Session::loadDictionaries() {
    keyNames_.clear();
    records_.clear();
    IDDatabase& db = *engine_->idDatabase;
    db.SetDicPath(dir_.c_str());
    if (db.InitIdDictionary(static_cast<int>(persons_.size())) != 1)
        return dir_ + ": more persons than the engine holds (2000)";
    for (const Person& p : persons_) {
        keyNames_.push_back(p.name);
        records_.push_back(HumanID{p.id, keyNames_.back().data()});
        db.PushIdDictionary(&records_.back());
    }
    if (persons_.empty()) return {};
    int read = 0;
    {
        QuietStandardError quiet;
        read = db.ReadIdDictionaries();
    }
    if (read == 1) return {};
    for (const Person& p : persons_) {
        const std::string path = dir_ + "/" + p.name + ".dck";
        char reason[512];
        if (msmface_describeFile(path.c_str(), reason, sizeof reason) < 0)
            return std::string(reason);
    }
    return dir_ + ": the persons' dictionaries do not load";
}

int Session::findById(int id) const {
    for (std::size_t i = 0; i < persons_.size(); ++i)
        if (persons_[i].id == id) return static_cast<int>(i);
    return -1;
}

std::string Session::checkWritable() const {
    const std::string probe = dir_ + "/.msmface-write-check" + std::to_string(::getpid());
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd < 0)
        return dir_ + ": the dictionary directory is not writable (" + std::strerror(errno) + ")";
    ::close(fd);
    ::unlink(probe.c_str());
    return {};
}

bool Session::crop(const Frame& frame, std::vector<unsigned char>* face) {
    if (!frame.image || frame.image->pixels.empty()) return false;
    BasicImageFile image(frame.image->width, frame.image->height, 8);
    BasicImageFile out(kFaceSide, kFaceSide, 8);
    if (image.pixels == nullptr || out.pixels == nullptr) return false;
    std::memcpy(image.pixels, frame.image->pixels.data(), frame.image->pixels.size());
    PartsPosition parts{};
    for (int k = 0; k < 28; ++k) parts.points[k] = toPixel(frame.points[k]);
    if (engine_->FaceCropping(&image, nullptr, &parts, &out) != 1) return false;
    if (face != nullptr && face->empty())
        face->assign(out.pixels, out.pixels + kFaceSide * kFaceSide);
    return true;
}

void Session::removePersonFiles(const std::string& name) const {
    for (const char* ext : {".dck", ".mck", ".bmp", ".dckev"})
        ::unlink((dir_ + "/" + name + ext).c_str());
}

std::string Session::enrol(int id, const std::string& name, const std::vector<Frame>& frames,
                           std::vector<unsigned char>* face) {
    if (id < 1) return "--id " + std::to_string(id) + ": expected an ID number of 1 or more";
    if (!validKeyName(name))
        return "--name \"" + name +
               "\": expected 1 to 64 letters, digits, '_', '-' or '.', not starting with '.'";
    for (const Person& p : persons_) {
        if (p.id == id)
            return "--id " + std::to_string(id) + ": the ID number is taken by \"" + p.name + "\"";
        if (p.name == name)
            return "--name " + name + ": the key name is taken by ID " + std::to_string(p.id);
    }
    for (const Person& p : orphans_)
        if (p.id == id || p.name == name)
            return "--id/--name: " + std::to_string(p.id) + " " + p.name +
                   " is listed without its files; delete it first";
    if (frames.empty()) return "no frames: expected at least one image with its points";
    std::string error = checkWritable();
    if (!error.empty()) return error;

    FaceRecognition& e = *engine_;
    if (e.idDatabase->SetNewKeyname(name.c_str()) != 1) return "the engine refused the key name";
    e.image_size_set(frames.front().image->width, frames.front().image->height);
    e.Set_RecogORRegist(2);
    e.Reset_gather_counter();
    int gathered = 0;
    for (const Frame& f : frames) {
        if (e.Get_RecogORRegist() != 2) break;
        if (!crop(f, face)) continue;
        ++gathered;
        e.FrameProcess(2);
    }
    const bool ran = e.Get_RecogORRegist() != 2;
    const bool ok = ran && e.Get_RegistCondition();
    e.Set_RecogORRegist(1);
    if (!ok) {
        e.idDatabase->FreeNewKeyname();
        removePersonFiles(name);
        if (!ran)
            return "only " + std::to_string(gathered) + " of " + std::to_string(frames.size()) +
                   " frames gave a face; a registration needs " +
                   std::to_string(e.Get_DICACQUISITIONNUM()) +
                   " (add --copies and --jitter to make more from few)";
        return "the registration of \"" + name + "\" failed: its faces span too few directions";
    }
    std::vector<Person> next = persons_;
    for (const Person& p : orphans_) next.push_back(p);
    next.push_back(Person{id, name});
    error = saveRegistry(dir_, next);
    if (!error.empty()) {
        e.idDatabase->FreeNewKeyname();
        removePersonFiles(name);
        return error;
    }
    persons_.push_back(Person{id, name});
    keyNames_.push_back(name);
    records_.push_back(HumanID{id, keyNames_.back().data()});
    e.idDatabase->AddNewDictionary(&records_.back());
    e.idDatabase->ReadIdDictionaries();
    if (constraintLoaded_) e.DicConvertID(e.idDatabase->GetAllNum() - 1);
    return {};
}

std::string Session::remove(int id) {
    const int index = findById(id);
    int orphan = -1;
    for (std::size_t i = 0; i < orphans_.size(); ++i)
        if (orphans_[i].id == id) orphan = static_cast<int>(i);
    if (index < 0 && orphan < 0)
        return "--id " + std::to_string(id) + ": no person with this ID number in " + dir_;
    std::string error = checkWritable();
    if (!error.empty()) return error;
    const std::string name = index >= 0 ? persons_[index].name : orphans_[orphan].name;
    std::vector<Person> next;
    for (const Person& p : persons_)
        if (p.id != id) next.push_back(p);
    for (const Person& p : orphans_)
        if (p.id != id) next.push_back(p);
    error = saveRegistry(dir_, next);
    if (!error.empty()) return error;
    if (index >= 0) {
        QuietStandardError quiet;
        engine_->Deletion(index, true);
    }
    removePersonFiles(name);
    // The engine leaves the record table to its host: start again from the files.
    engine_.reset(new FaceRecognition(kCameraWidth, kCameraHeight));
    constraintLoaded_ = false;
    return open(dir_);
}

bool Session::hasConstraint() const {
    return exists(dir_ + "/" + kConstraintListName);
}

std::string Session::buildConstraint(int dimension) {
    if (dimension < 1 || dimension > 256)
        return "--dimension " + std::to_string(dimension) + ": expected 1 to 256";
    if (persons_.size() < 2) return dir_ + ": a constraint space needs at least two persons";
    std::string error = checkWritable();
    if (!error.empty()) return error;
    const std::string stem = absolute(dir_) + "/" + kConstraintStem;
    if (stem.find_first_of(" \t\n") != std::string::npos)
        return dir_ + ": the constraint list cannot name a folder with blanks in its path";
    const std::string list = dir_ + "/" + kConstraintListName;
    const std::string temp = list + ".tmp" + std::to_string(::getpid());
    {
        std::FILE* f = std::fopen(temp.c_str(), "w");
        if (f == nullptr) return temp + ": cannot be written";
        std::fprintf(f, "1\n1\nCMSML %s %d %s\n", stem.c_str(), dimension, stem.c_str());
        const bool ok = std::fflush(f) == 0 && ::fsync(::fileno(f)) == 0;
        if (std::fclose(f) != 0 || !ok) {
            ::unlink(temp.c_str());
            return temp + ": cannot be written";
        }
    }
    FaceRecognition& e = *engine_;
    e.Set_recognitionmethod(kMethodCmsm);
    int generated = 0;
    {
        // Before the first generation the space's files do not exist yet: the load fails, but
        // the list is known and the generation writes the files.
        QuietStandardError quiet;
        e.InitConstraintMSM(temp.c_str());
        generated = e.UpdateCMSMDictionary(0);
    }
    if (generated != 1) {
        ::unlink(temp.c_str());
        return dir_ + ": the constraint space could not be generated or written";
    }
    if (::rename(temp.c_str(), list.c_str()) != 0) {
        ::unlink(temp.c_str());
        return list + ": cannot be written";
    }
    constraintLoaded_ = false;
    return loadConstraint();
}

std::string Session::loadConstraint() {
    const std::string list = dir_ + "/" + kConstraintListName;
    if (!hasConstraint())
        return dir_ + ": no constraint space yet (run \"msmface constraint " + dir_ + "\")";
    int status = 0;
    {
        QuietStandardError quiet;
        status = engine_->InitConstraintMSM(list.c_str());
    }
    if (status <= 0)
        return list + ": the constraint space does not load (status " + std::to_string(status) +
               "); run \"msmface constraint\" again";
    engine_->Set_recognitionmethod(kMethodCmsm);
    engine_->DicConvert();
    constraintLoaded_ = true;
    return {};
}

std::string Session::recognise(const std::vector<Frame>& frames, int method, Recognition& out,
                               std::vector<unsigned char>* face) {
    out = Recognition{};
    const int n = static_cast<int>(persons_.size());
    if (n == 0) return dir_ + ": no persons are enrolled";
    if ((method == 2 || method == kMethodCmsm) && !constraintLoaded_) {
        std::string error = loadConstraint();
        if (!error.empty()) return error;
    }
    FaceRecognition& e = *engine_;
    e.Set_recognitionmethod(method);
    e.Set_RecognitionResultMode(1, std::max(n, 10));
    e.Set_RecogORRegist(1);
    e.Refresh_input();
    std::vector<double> sums(n, 0.0);
    std::vector<int> counts(n, 0);
    auto collect = [&](bool accumulate) {
        const RECOGRESULT* r = e.Get_ResultRecog();
        for (int i = 0; r != nullptr && i < std::max(n, 10); ++i) {
            const int who = r[i].id;
            if (who < 0 || who >= n || r[i].similarity < 0) continue;
            if (accumulate) {
                sums[who] += r[i].similarity;
                ++counts[who];
            } else {
                sums[who] = r[i].similarity;
                counts[who] = 1;
            }
        }
    };
    for (const Frame& f : frames) {
        if (!crop(f, face)) continue;
        ++out.framesUsed;
        if (e.FrameProcess(2) != 13) continue;
        if (method == kMethodSinglePattern) collect(true);
    }
    if (out.framesUsed == 0) return "none of the frames gave a face (check the points)";
    if (method != kMethodSinglePattern) collect(false);
    out.scores.assign(n, -1);
    for (int i = 0; i < n; ++i)
        if (counts[i] > 0) out.scores[i] = static_cast<int>(sums[i] / counts[i]);
    for (int i = 0; i < n; ++i)
        if (out.scores[i] >= 0 && (out.best < 0 || out.scores[i] > out.bestScore)) {
            out.best = i;
            out.bestScore = out.scores[i];
        }
    if (out.best < 0) return "too few frames gave a face to form an input subspace";
    out.accepted = out.bestScore > e.Get_Identify_thresvalue();
    return {};
}

}  // namespace msmcli
