// msmface.Engine: the legacy frame cycle for those who study the method. One FaceRecognition,
// the normalised face and the pattern vectors of each frame, the ranked inside numbers.
#include <algorithm>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/stl.h>

#include <msmface/FaceRecognition.h>
#include <msmface/face_input.h>

#include "arrays.h"
#include "bindings.h"
#include "engine/RecognitionEngine.h"
#include "io/small_text_file.h"
#include "store/registry.h"

namespace msmpy {

namespace {

constexpr int kFaceSide = 64;

// A grey BasicImageFile over pixels it does not own: the pointer is handed back before the
// image's destructor runs, which would otherwise free the caller's memory.
class BorrowedGrey {
  public:
    BorrowedGrey(const unsigned char* pixels, int width, int height) {
        image_.pixels = const_cast<unsigned char*>(pixels);
        image_.width = width;
        image_.height = height;
        image_.bitsPerPixel = 8;
    }
    ~BorrowedGrey() {
        image_.pixels = nullptr;
        image_.width = image_.height = image_.bitsPerPixel = 0;
    }
    BorrowedGrey(const BorrowedGrey&) = delete;
    BorrowedGrey& operator=(const BorrowedGrey&) = delete;
    BasicImageFile* get() { return &image_; }

  private:
    BasicImageFile image_;
};

// The grey frame the engine reads: the caller's pixels when they are grey and unpadded, else a
// grey copy (colour mixed down as <msmface/frame.h> says).
const unsigned char* greyPixels(const msmface::FrameView& f, std::vector<unsigned char>& copy) {
    const int w = f.width, h = f.height, stride = f.rowBytes();
    if (f.format == msmface::PixelFormat::Grey && stride == w) return f.data;
    copy.resize(static_cast<std::size_t>(w) * h);
    for (int y = 0; y < h; ++y) {
        const unsigned char* row = f.data + static_cast<std::ptrdiff_t>(y) * stride;
        unsigned char* out = copy.data() + static_cast<std::size_t>(y) * w;
        if (f.format == msmface::PixelFormat::Grey) {
            std::copy(row, row + w, out);
            continue;
        }
        const int r = f.format == msmface::PixelFormat::RGB ? 0 : 2, b = 2 - r;
        for (int x = 0; x < w; ++x) {
            const unsigned char* p = row + 3 * x;
            out[x] = static_cast<unsigned char>((p[r] * 299 + p[1] * 587 + p[b] * 114) / 1000);
        }
    }
    return copy.data();
}

class Engine {
  public:
    Engine(int width, int height) {
        if (width < 1 || height < 1 || width > 32768 || height > 32768) {
            raiseValueError("Engine: expected a frame size of 1 to 32768 pixels per side, got " +
                            std::to_string(width) + " x " + std::to_string(height));
        }
        engine_ = std::make_unique<FaceRecognition>(width, height);
        if (engine_->engine == nullptr || engine_->engine->featureExtraction == nullptr ||
            engine_->engine->recognizer == nullptr) {
            throw std::runtime_error("Engine: the engine could not be allocated");
        }
    }

    // None, or the normalised face and the pattern vectors of the frame.
    py::object crop(const py::handle& frame, const py::handle& points, const std::string& colour) {
        FrameArg f = frameFromArray(frame, colour);
        const msmface::FacePoints p = pointsFromArray(points);
        PartsPosition parts = msmface::toPartsPosition(p);
        int rc = 0;
        std::vector<unsigned char> face;
        std::vector<float> patterns;
        int vectors = 0;
        {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> lock(mutex_);
            std::vector<unsigned char> copy;
            BorrowedGrey grey(greyPixels(f.view, copy), f.view.width, f.view.height);
            BasicImageFile out(kFaceSide, kFaceSide, 8);
            rc = engine_->FaceCropping(grey.get(), nullptr, &parts, &out);
            if (rc == 1) {
                const int slot = engine_->engine->NewestSlot();
                copyFace(slot, face);
                vectors = copyPatterns(slot, patterns);
            }
        }
        if (rc != 1) return py::none();
        return py::make_tuple(faceArray(face), patternArray(patterns, vectors));
    }

    int frameProcess(const py::handle& eventArg) {
        const int event = intArgument(eventArg, "event");
        py::gil_scoped_release unlocked;
        std::lock_guard<std::mutex> lock(mutex_);
        return engine_->FrameProcess(event);
    }

    // (inside number, score) of every filled entry, best first.
    std::vector<std::pair<int, int>> results() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::pair<int, int>> out;
        const RECOGRESULT* r = engine_->Get_ResultRecog();
        const int n = engine_->engine->recognizer->results.length;
        const int persons = engine_->idDatabase->GetAllNum();
        for (int i = 0; r != nullptr && i < n; ++i) {
            // Unfilled entries hold -999 (as inside number or score); -1 marks a cleared input.
            if (r[i].id < 0 || r[i].id >= persons || r[i].similarity == -999) continue;
            out.emplace_back(r[i].id, r[i].similarity);
        }
        return out;
    }

    py::array_t<unsigned char> faceAt(const py::handle& slotArg) {
        const int slot = slotIndex(slotArg);
        std::vector<unsigned char> face;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            copyFace(slot, face);
        }
        return faceArray(face);
    }

    py::array_t<float> patternsAt(const py::handle& slotArg) {
        const int slot = slotIndex(slotArg);
        std::vector<float> patterns;
        int vectors = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            vectors = copyPatterns(slot, patterns);
        }
        return patternArray(patterns, vectors);
    }

    int newestSlot() const { return engine_->engine->NewestSlot(); }

    // The persons (ID number, key name) whose dictionaries lie in directory.
    void load(const std::string& directory, const py::handle& personList) {
        const std::vector<std::pair<int, std::string>> persons = personsFrom(personList);
        if (directory.size() > 255)
            raiseValueError("directory: at most 255 characters, got " +
                            std::to_string(directory.size()));
        int read = 1;
        {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> lock(mutex_);
            IDDatabase& db = *engine_->idDatabase;
            db.RemoveAllDictionary(false);
            names_.clear();
            records_.clear();
            db.SetDicPath(directory.c_str());
            if (db.InitIdDictionary(static_cast<int>(persons.size())) != 1) {
                read = -1;
            } else {
                for (const auto& [id, name] : persons) {
                    names_.push_back(name);
                    records_.push_back(HumanID{id, names_.back().data()});
                    db.PushIdDictionary(&records_.back());
                }
                if (!persons.empty()) read = db.ReadIdDictionaries();
            }
        }
        if (read == -1)
            raiseValueError("persons: at most 2000, got " + std::to_string(persons.size()));
        if (read != 1) {
            PyErr_SetString(PyExc_OSError,
                            (directory + ": the persons' dictionaries do not load").c_str());
            throw py::error_already_set();
        }
    }

    void loadConstraint(const std::string& listPath) {
        int status = 0;
        {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> lock(mutex_);
            status = engine_->InitConstraintMSM(listPath.c_str());
            if (status > 0) engine_->DicConvert();
        }
        if (status <= 0) {
            PyErr_SetString(PyExc_OSError,
                            (listPath + ": the constraint space list does not load").c_str());
            throw py::error_already_set();
        }
    }

    int personCount() { return engine_->idDatabase->GetAllNum(); }

    FaceRecognition& raw() { return *engine_; }
    std::mutex& mutex() { return mutex_; }

  private:
    // requires: the lock is held; 0 <= slot < 501.
    void copyFace(int slot, std::vector<unsigned char>& out) {
        out.assign(kFaceSide * kFaceSide, 0);
        const BasicImageFile* img = engine_->Get_NormImagesPtr(slot);
        if (img != nullptr && img->pixels != nullptr && img->width == kFaceSide &&
            img->height == kFaceSide && img->bitsPerPixel == 8) {
            std::copy(img->pixels, img->pixels + kFaceSide * kFaceSide, out.begin());
        }
    }

    // Returns the vectors per frame; out holds them one after the other.
    int copyPatterns(int slot, std::vector<float>& out) {
        const FeatureExtraction& fx = *engine_->engine->featureExtraction;
        const int n = std::clamp(fx.vectorsPerFrame, 0, FeatureExtraction::kMaxVectorsPerFrame);
        out.clear();
        for (int j = 0; j < n; ++j) {
            const float* v = fx.patternSlots[slot][j];
            out.insert(out.end(), v, v + FeatureExtraction::kPatternDimension);
        }
        return n;
    }

    // (ID number, key name) pairs; the names become file names in the directory, so they follow
    // the gallery's rule for key names (no path separators, no leading dot).
    static std::vector<std::pair<int, std::string>> personsFrom(const py::handle& persons) {
        if (py::isinstance<py::str>(persons) || !py::hasattr(persons, "__iter__"))
            raiseValueError("persons: expected a list of (ID number, key name) pairs");
        std::vector<std::pair<int, std::string>> out;
        for (py::handle item : persons) {
            const std::string where = "persons[" + std::to_string(out.size()) + "]";
            if (!py::isinstance<py::sequence>(item) || py::isinstance<py::str>(item) ||
                py::len(item) != 2)
                raiseValueError(where + ": expected an (ID number, key name) pair");
            auto pair = py::reinterpret_borrow<py::sequence>(item);
            const int id = intArgument(pair[0], (where + " ID number").c_str(), 1, INT_MAX);
            if (!py::isinstance<py::str>(pair[1]))
                raiseValueError(where + ": expected a key name as a str");
            std::string name = pair[1].cast<std::string>();
            if (!msmface::detail::validKeyName(name))
                raiseValueError(where + " \"" + msmface::detail::quoteForMessage(name, 64) +
                                "\": expected 1 to 64 letters, digits, '_', '-' or '.', not "
                                "starting with '.'");
            out.emplace_back(id, std::move(name));
        }
        return out;
    }

    static py::array_t<unsigned char> faceArray(const std::vector<unsigned char>& face) {
        py::array_t<unsigned char> out({kFaceSide, kFaceSide});
        std::copy(face.begin(), face.end(), out.mutable_data());
        return out;
    }

    static py::array_t<float> patternArray(const std::vector<float>& patterns, int vectors) {
        py::array_t<float> out({vectors, FeatureExtraction::kPatternDimension});
        std::copy(patterns.begin(), patterns.end(), out.mutable_data());
        return out;
    }

    static int slotIndex(const py::handle& slot) {
        return intArgument(slot, "slot", 0, FeatureExtraction::kSlotCount - 1);
    }

    std::unique_ptr<FaceRecognition> engine_;
    // Python threads may share one object while the GIL is released; the engine itself takes
    // one thread at a time.
    std::mutex mutex_;
    std::deque<std::string> names_;  // stable storage the database's records point into
    std::deque<HumanID> records_;
};

// A setting as a property: read and written under the engine's lock.
template <class Get, class Set>
void setting(py::class_<Engine>& c, const char* name, Get get, Set set, const char* doc) {
    c.def_property(
        name,
        [get](Engine& e) {
            std::lock_guard<std::mutex> lock(e.mutex());
            return get(e.raw());
        },
        [set, name](Engine& e, const py::handle& value) {
            const int v = intArgument(value, name);
            std::lock_guard<std::mutex> lock(e.mutex());
            set(e.raw(), v);
        },
        doc);
}

}  // namespace

void bindEngine(py::module_& m) {
    py::class_<Engine> c(m, "Engine", R"doc(
The engine's frame cycle, one object per camera, for studying the method.

Per frame with a face: ``crop(frame, points)`` normalises the face (it returns the 64 x 64 face
and the frame's pattern vectors), then ``frame_process(2)``; a frame without a face is
``frame_process(0)``. In recognition mode (``mode = 1``) ``results()`` holds the ranked persons
as (inside number, score in thousandths). ``load()`` gives the engine the persons of a gallery
directory. Calls that normalise or recognise release the GIL; one object serialises its calls.
)doc");
    c.def(py::init([](const py::handle& width, const py::handle& height) {
              return std::make_unique<Engine>(intArgument(width, "width"),
                                              intArgument(height, "height"));
          }),
          py::arg("width"), py::arg("height"),
          "An engine for frames of width x height pixels (the size of the snapshot a registration "
          "keeps).");
    c.def("crop", &Engine::crop, py::arg("frame"), py::arg("points"), py::kw_only(),
          py::arg("format") = "bgr",
          "Normalises the face at points (shape (14, 2)) in frame (uint8, (H, W) or (H, W, 3)).\n"
          "Returns (face, patterns): the 64 x 64 uint8 face and the float32 pattern vectors of\n"
          "shape (5, 256), both also kept in the engine's ring slot ``newest_slot``; None when\n"
          "the face could not be normalised.");
    c.def("frame_process", &Engine::frameProcess, py::arg("event") = 2,
          "One step of the frame cycle: event 2 after a crop, 0 for a frame without a face.\n"
          "Returns 10 (event 0), 11 (events 1, 4), 12 (gathering for a registration),\n"
          "13 (recognised), 0 otherwise.");
    c.def("results", &Engine::results,
          "The ranked persons of the last recognition as (inside number, score) pairs, best "
          "first.");
    c.def("face", &Engine::faceAt, py::arg("slot"),
          "The normalised 64 x 64 face of a ring slot (0 .. 500).");
    c.def("patterns", &Engine::patternsAt, py::arg("slot"),
          "The pattern vectors of a ring slot, float32 of shape (5, 256).");
    c.def_property_readonly("newest_slot", &Engine::newestSlot,
                            "The ring slot the last normalised face went to.");
    c.def(
        "refresh_input",
        [](Engine& e) {
            std::lock_guard<std::mutex> lock(e.mutex());
            e.raw().Refresh_input();
        },
        "Clears the input: the next face starts a new input subspace.");
    c.def_property_readonly(
        "frames",
        [](Engine& e) {
            std::lock_guard<std::mutex> lock(e.mutex());
            return e.raw().GetMulCount();
        },
        "Frames in the current input subspace.");
    c.def("load", &Engine::load, py::arg("directory"), py::arg("persons"),
          "Loads the dictionaries of persons, a list of (ID number, key name), from a gallery\n"
          "directory; their inside numbers are their positions in the list. Example:\n"
          "``engine.load(g.directory, [(p.id, p.name) for p in g.persons])``.");
    c.def("load_constraint", &Engine::loadConstraint, py::arg("list_path"),
          "Loads a constraint-space list file (a gallery's constraint.list) and projects the "
          "persons, for methods 2, 4, 6 and 7.");
    c.def_property_readonly("person_count", &Engine::personCount, "Persons loaded.");
    setting(
        c, "mode", [](FaceRecognition& f) { return f.Get_RecogORRegist(); },
        [](FaceRecognition& f, int v) { f.Set_RecogORRegist(v); },
        "0 idle, 1 recognise, 2 register, 3 add.");
    setting(
        c, "method", [](FaceRecognition& f) { return f.Get_recognitionmethod(); },
        [](FaceRecognition& f, int v) { f.Set_recognitionmethod(v); },
        "0 single pattern, 1 MSM (default), 2/6 constrained in the first space, 4/7 in all.");
    setting(
        c, "threshold", [](FaceRecognition& f) { return f.Get_Identify_thresvalue(); },
        [](FaceRecognition& f, int v) { f.Set_Identify_thresvalue(v); },
        "Identify threshold in thousandths (850).");
    setting(
        c, "refresh_time", [](FaceRecognition& f) { return f.Get_RefreshTime(); },
        [](FaceRecognition& f, int v) { f.Set_RefreshTime(v); },
        "Face-less frames before the input is cleared; negative: never.");
    setting(
        c, "acquisition_frames", [](FaceRecognition& f) { return f.Get_DICACQUISITIONNUM(); },
        [](FaceRecognition& f, int v) { f.Set_DICACQUISITIONNUM(v); },
        "Frames a registration gathers (50).");
    setting(
        c, "eigen_count", [](FaceRecognition& f) { return f.Get_need_eigen_num(); },
        [](FaceRecognition& f, int v) {
            if (f.Change_need_eigen_num(v) == 0)
                throw py::value_error("eigen_count: expected 3 to 20, got " + std::to_string(v));
        },
        "Basis vectors per subspace, 3 to 20 (7).");
}

}  // namespace msmpy
