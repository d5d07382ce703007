// msmface.Gallery and msmface.Stream over <msmface/gallery.h>.
//
// The library lets one thread at a time use a gallery and a stream, and lets streams of one
// gallery run at once, also while the gallery changes. Python threads run the calls with the GIL
// released, so the binding keeps that contract itself: a gallery's changes, its own recognition
// and the making of a stream take the gallery's lock exclusively, its readers shared; a stream's
// frames take only the stream's own lock.
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/stl.h>

#include <msmface/gallery.h>

#include "arrays.h"
#include "bindings.h"
#include "gallery_box.h"
#include "interrupt.h"

namespace msmpy {

msmface::Method methodFrom(const py::handle& method) {
    if (py::isinstance<msmface::Method>(method)) return method.cast<msmface::Method>();
    if (py::isinstance<py::str>(method)) {
        const std::string s = method.cast<std::string>();
        if (s == "single" || s == "single_pattern") return msmface::Method::SinglePattern;
        if (s == "msm") return msmface::Method::Msm;
        if (s == "cmsm") return msmface::Method::Cmsm;
        if (s == "cmsm_first_space") return msmface::Method::CmsmFirstSpace;
        raiseValueError(
            "method: expected \"single\", \"msm\", \"cmsm\" or "
            "\"cmsm_first_space\", got \"" +
            s + "\"");
    }
    if (PyIndex_Check(method.ptr()) && !py::isinstance<py::bool_>(method)) {
        const int v = intArgument(method, "method");
        if (v == 0) return msmface::Method::SinglePattern;
        if (v == 1) return msmface::Method::Msm;
        if (v == 2) return msmface::Method::CmsmFirstSpace;
        if (v == 4) return msmface::Method::Cmsm;
        raiseValueError("method: expected 0, 1, 2 or 4, got " + std::to_string(v));
    }
    raiseValueError("method: expected \"single\", \"msm\", \"cmsm\" or a Method, got " +
                    py::str(py::type::handle_of(method).attr("__name__")).cast<std::string>());
}

namespace {

struct StreamBox {
    StreamBox(std::shared_ptr<GalleryBox> g, msmface::Stream s)
        : gallery(std::move(g)), stream(std::move(s)) {}
    std::shared_ptr<GalleryBox> gallery;  // the stream refers to it: kept alive as long
    msmface::Stream stream;
    std::mutex lock;
};

// Brings the gallery up to the directory before a property reports on it.
void refresh(GalleryBox& b) {
    msmface::Status st;
    {
        py::gil_scoped_release unlocked;
        std::unique_lock<std::shared_mutex> l(b.lock);
        st = b.gallery.refresh();
    }
    check(st);
}

// Frames as a caller hands them: each item a frame array, or a (frame, points) pair whose points
// may be None. The arrays are kept referenced by `frames` while the GIL is released.
struct SampleList {
    std::vector<FrameArg> frames;
    std::vector<msmface::Sample> samples;
};

SampleList samplesFrom(const py::handle& items, const std::string& colour) {
    if (py::isinstance<py::array>(items) || py::isinstance<py::str>(items) ||
        !py::hasattr(items, "__iter__")) {
        raiseValueError("frames: expected a list of frames or of (frame, points) pairs");
    }
    SampleList out;
    std::size_t i = 0;
    for (py::handle item : items) {
        const std::string name = "frames[" + std::to_string(i++) + "]";
        msmface::Sample s;
        if (py::isinstance<py::array>(item)) {
            out.frames.push_back(frameFromArray(item, colour, name.c_str()));
        } else if ((py::isinstance<py::tuple>(item) || py::isinstance<py::list>(item)) &&
                   py::len(item) == 2) {
            auto pair = py::reinterpret_borrow<py::sequence>(item);
            out.frames.push_back(frameFromArray(pair[0], colour, name.c_str()));
            if (!pair[1].is_none()) s.points = pointsFromArray(pair[1], (name + " points").c_str());
        } else {
            raiseValueError(
                name + ": expected a frame array or a (frame, points) pair, got " +
                py::str(py::type::handle_of(item).attr("__name__")).cast<std::string>());
        }
        out.samples.push_back(s);
    }
    for (std::size_t k = 0; k < out.samples.size(); ++k) out.samples[k].frame = out.frames[k].view;
    return out;
}

// The samples of a call given either frames or descriptors (a gallery of descriptors takes both).
SampleList samplesOrDescriptors(const py::handle& frames, const py::handle& descriptors,
                                const std::string& colour) {
    if (frames.is_none() == descriptors.is_none())
        raiseValueError("frames, descriptors: expected one of the two");
    if (!frames.is_none()) return samplesFrom(frames, colour);
    SampleList out;
    for (const msmface::FaceDescriptor& d : descriptorsFromArray(descriptors)) {
        msmface::Sample s;
        s.descriptor = d;
        out.samples.push_back(s);
    }
    return out;
}

std::optional<msmface::PatternKind> patternsFrom(const py::handle& patterns) {
    if (patterns.is_none()) return std::nullopt;
    if (py::isinstance<py::str>(patterns)) {
        const std::string name = patterns.cast<std::string>();
        if (auto kind = msmface::patternKindNamed(name)) return kind;
        raiseValueError("patterns: expected \"seed\" or \"descriptor\", got \"" + name + "\"");
    }
    raiseValueError("patterns: expected \"seed\" or \"descriptor\", got " +
                    py::str(py::type::handle_of(patterns).attr("__name__")).cast<std::string>());
}

std::string matchRepr(const msmface::Match& m) {
    return "Match(id=" + std::to_string(m.id) + ", name='" + m.name +
           "', score=" + std::to_string(m.score) + ")";
}

}  // namespace

void bindGallery(py::module_& m) {
    py::enum_<msmface::Method>(m, "Method", "Recognition methods.")
        .value("SINGLE_PATTERN", msmface::Method::SinglePattern,
               "The newest frame's pattern against each person; averaged over a run's frames.")
        .value("MSM", msmface::Method::Msm, "Input subspace against each person's subspace.")
        .value("CMSM_FIRST_SPACE", msmface::Method::CmsmFirstSpace,
               "The same inside the first constraint space only.")
        .value("CMSM", msmface::Method::Cmsm,
               "The same inside every constraint space (Gallery.rebuild_constraint first).");

    py::class_<msmface::Person>(m, "Person", "A registered person: ID number and key name.")
        .def_readonly("id", &msmface::Person::id)
        .def_readonly("name", &msmface::Person::name)
        .def("__repr__",
             [](const msmface::Person& p) {
                 return "Person(id=" + std::to_string(p.id) + ", name='" + p.name + "')";
             })
        .def("__eq__", [](const msmface::Person& a, const msmface::Person& b) {
            return a.id == b.id && a.name == b.name;
        });

    py::class_<msmface::Match>(m, "Match", "One scored person.")
        .def_readonly("id", &msmface::Match::id)
        .def_readonly("name", &msmface::Match::name)
        .def_readonly("score", &msmface::Match::score, "Similarity in thousandths, 0 .. 1000.")
        .def("__repr__", &matchRepr);

    py::class_<msmface::Ranking>(m, "Ranking", "The persons ranked for one run of frames.")
        .def_readonly("matches", &msmface::Ranking::matches,
                      "Every scored person, best first (a new list at each access).")
        .def_readonly("frames_used", &msmface::Ranking::framesUsed,
                      "Frames whose face could be normalised.")
        .def_readonly("threshold", &msmface::Ranking::threshold)
        .def_readonly("identified", &msmface::Ranking::identified,
                      "The best match when its score is above the threshold, else None.")
        .def_property_readonly(
            "best",
            [](const msmface::Ranking& r) -> std::optional<msmface::Match> {
                if (r.matches.empty()) return std::nullopt;
                return r.matches.front();
            },
            "The best match, or None when nobody was scored.")
        .def(
            "scores",
            [](const msmface::Ranking& r) {
                py::dict d;
                for (const auto& x : r.matches) d[py::int_(x.id)] = x.score;
                return d;
            },
            "{ID number: score} of every scored person.")
        .def("__len__", [](const msmface::Ranking& r) { return r.matches.size(); })
        .def("__repr__", [](const msmface::Ranking& r) {
            std::string s =
                "Ranking(frames_used=" + std::to_string(r.framesUsed) +
                ", threshold=" + std::to_string(r.threshold) +
                ", identified=" + (r.identified ? matchRepr(*r.identified) : "None") +
                ", best=" + (r.matches.empty() ? "None" : matchRepr(r.matches.front())) + ")";
            return s;
        });

    py::class_<msmface::StreamState>(m, "StreamState", "What a stream knows after a frame.")
        .def_readonly("face", &msmface::StreamState::face,
                      "True when this frame's face was normalised.")
        .def_readonly("frames", &msmface::StreamState::frames,
                      "Faces in the current input (0 after it was cleared).")
        .def_readonly("ranking", &msmface::StreamState::ranking,
                      "The current ranking (empty until the first face was recognised).")
        .def_property_readonly(
            "identified", [](const msmface::StreamState& s) { return s.ranking.identified; },
            "The identified person, or None.")
        .def("__repr__", [](const msmface::StreamState& s) {
            return std::string("StreamState(face=") + (s.face ? "True" : "False") +
                   ", frames=" + std::to_string(s.frames) + ", identified=" +
                   (s.ranking.identified ? matchRepr(*s.ranking.identified) : "None") + ")";
        });

    py::class_<GalleryBox, std::shared_ptr<GalleryBox>> g(m, "Gallery", R"doc(
A gallery of persons kept in a dictionary directory (its persons.txt registry and the engine's
files). Enrolment writes the person's files first and the registry last; removal the registry
first; a call that fails raises and leaves the directory as it was.

Frames are uint8 arrays (H, W) grey or (H, W, 3) colour ("bgr" by default, format="rgb" for red
first); points are (14, 2) arrays in the order of <msmface/PartsPosition.h>. A frame list holds
frame arrays and (frame, points) pairs; frames without points need a point finder.
Calls that read or write files or recognise release the GIL; Ctrl-C (KeyboardInterrupt) stops
enrol and recognise between frames, leaving the directory as it was.
)doc");
    g.def(py::init([](const std::string& directory, bool create, const py::handle& patterns) {
              msmface::OpenOptions o;
              o.create = create;
              o.patterns = patternsFrom(patterns);
              o.interrupted = pythonInterruptCheck();
              std::optional<msmface::Result<msmface::Gallery>> r;
              {
                  py::gil_scoped_release unlocked;
                  r.emplace(msmface::Gallery::open(directory, o));
              }
              return std::make_shared<GalleryBox>(take(std::move(*r)));
          }),
          py::arg("directory"), py::kw_only(), py::arg("create") = false,
          py::arg("patterns") = py::none(),
          "Opens a dictionary directory (create=True makes it when it does not exist).\n"
          "patterns: \"seed\" (the engine's own) or \"descriptor\" (learned face descriptors,\n"
          "msmface.detect.Descriptor): the kind a new directory records and an existing one must\n"
          "have (ValueError naming both otherwise); None: whatever the directory holds.");
    g.def_property_readonly(
        "patterns",
        [](GalleryBox& b) {
            std::shared_lock<std::shared_mutex> l(b.lock);
            return std::string(msmface::patternKindName(b.gallery.patterns()));
        },
        "The kind of pattern of the directory's persons: \"seed\" or \"descriptor\".");
    g.def_property_readonly("directory", [](GalleryBox& b) {
        std::shared_lock<std::shared_mutex> l(b.lock);
        return b.gallery.directory();
    });
    g.def_property_readonly(
        "persons",
        [](GalleryBox& b) {
            refresh(b);
            std::shared_lock<std::shared_mutex> l(b.lock);
            return b.gallery.persons();
        },
        "The registered persons in registry order, as the directory lists them now (another "
        "process's change included); raises OSError when the directory is gone.");
    g.def_property_readonly(
        "orphans",
        [](GalleryBox& b) {
            refresh(b);
            std::shared_lock<std::shared_mutex> l(b.lock);
            return b.gallery.orphans();
        },
        "Persons listed in the registry without their dictionary file.");
    g.def_property_readonly(
        "left_out",
        [](GalleryBox& b) {
            refresh(b);
            std::shared_lock<std::shared_mutex> l(b.lock);
            std::vector<std::pair<msmface::Person, std::string>> out;
            for (const msmface::LeftOut& left : b.gallery.leftOut())
                out.emplace_back(left.person, left.reason);
            return out;
        },
        "Listed persons that are not recognised, with the reason, as (Person, str) pairs: a "
        "dictionary file that is missing, does not read or is not a valid dictionary.");
    g.def(
        "find",
        [](GalleryBox& b, const py::handle& id) {
            const int key = intArgument(id, "id");
            std::shared_lock<std::shared_mutex> l(b.lock);
            return b.gallery.find(key);
        },
        py::arg("id"), "The person with this ID number, or None.");
    g.def("__len__", [](GalleryBox& b) {
        std::shared_lock<std::shared_mutex> l(b.lock);
        return b.gallery.persons().size();
    });
    g.def("__contains__", [](GalleryBox& b, const py::handle& id) {
        const int key = intArgument(id, "id");
        std::shared_lock<std::shared_mutex> l(b.lock);
        return b.gallery.find(key).has_value();
    });
    g.def("__repr__", [](GalleryBox& b) {
        std::shared_lock<std::shared_mutex> l(b.lock);
        return "Gallery('" + b.gallery.directory() +
               "', persons=" + std::to_string(b.gallery.persons().size()) + ")";
    });
    g.def(
        "enrol",
        [](GalleryBox& b, const py::handle& id, const std::string& name, const py::handle& frames,
           const py::handle& descriptors, const std::string& format) {
            const int key = intArgument(id, "id");
            SampleList s = samplesOrDescriptors(frames, descriptors, format);
            msmface::Status st;
            {
                py::gil_scoped_release unlocked;
                std::unique_lock<std::shared_mutex> l(b.lock);
                st = b.gallery.enrol(key, name, s.samples);
            }
            raiseIfInterrupted();
            check(st);
        },
        py::arg("id"), py::arg("name"), py::arg("frames") = py::none(), py::kw_only(),
        py::arg("descriptors") = py::none(), py::arg("format") = "bgr",
        "Registers a new person from frames (a registration gathers 50 normalised faces; see\n"
        "msmface.jitter for fewer frames), or in a gallery of descriptors from descriptors, an\n"
        "(n, 128) array (ValueError for one that is not finite or has no length; the directory\n"
        "stays as it was). id >= 1 and unused; name: 1 to 64 letters, digits, '_', '-' or '.',\n"
        "not starting with '.'.");
    g.def(
        "remove",
        [](GalleryBox& b, const py::handle& id) {
            const int key = intArgument(id, "id");
            msmface::Status st;
            {
                py::gil_scoped_release unlocked;
                std::unique_lock<std::shared_mutex> l(b.lock);
                st = b.gallery.remove(key);
            }
            check(st);
        },
        py::arg("id"), "Removes a person: the registry entry first, then the files.");
    g.def(
        "rebuild_constraint",
        [](GalleryBox& b, const py::handle& dimension) {
            const int n = intArgument(dimension, "dimension");
            msmface::Status st;
            {
                py::gil_scoped_release unlocked;
                std::unique_lock<std::shared_mutex> l(b.lock);
                st = b.gallery.rebuildConstraint(n);
            }
            check(st);
        },
        py::arg("dimension"),
        "Builds the constraint space (for method 'cmsm') from every person: 1 to 256 vectors,\n"
        "at least two persons.");
    g.def_property_readonly("has_constraint", [](GalleryBox& b) {
        std::shared_lock<std::shared_mutex> l(b.lock);
        return b.gallery.hasConstraint();
    });
    g.def(
        "recognise",
        [](GalleryBox& b, const py::handle& frames, const py::handle& descriptors,
           const py::handle& method, const py::object& threshold, const std::string& format) {
            msmface::RecogniseOptions o;
            o.method = methodFrom(method);
            o.threshold = optionalIntArgument(threshold, -1, "threshold");
            SampleList s = samplesOrDescriptors(frames, descriptors, format);
            std::optional<msmface::Result<msmface::Ranking>> r;
            {
                py::gil_scoped_release unlocked;
                std::unique_lock<std::shared_mutex> l(b.lock);
                r.emplace(b.gallery.recognise(s.samples, o));
            }
            raiseIfInterrupted();
            return take(std::move(*r));
        },
        py::arg("frames") = py::none(), py::kw_only(), py::arg("descriptors") = py::none(),
        py::arg("method") = "msm", py::arg("threshold") = py::none(), py::arg("format") = "bgr",
        "Recognises frames (or in a gallery of descriptors an (n, 128) array of descriptors) as\n"
        "one face seen by a camera: the ranked persons. method: 'single', 'msm' or 'cmsm' (or a\n"
        "Method); threshold: None for the gallery's stored one.");
    g.def_property(
        "threshold",
        [](GalleryBox& b) {
            std::shared_lock<std::shared_mutex> l(b.lock);
            return b.gallery.threshold();
        },
        [](GalleryBox& b, const py::handle& threshold) {
            const int t = intArgument(threshold, "threshold");
            msmface::Status st;
            {
                py::gil_scoped_release unlocked;
                std::unique_lock<std::shared_mutex> l(b.lock);
                st = b.gallery.setThreshold(t);
            }
            check(st);
        },
        "The identify threshold stored in the directory (0 .. 1000; setting it writes the file).");
    g.def(
        "set_point_finder",
        [](GalleryBox& b, std::shared_ptr<msmface::PointFinder> f) {
            std::unique_lock<std::shared_mutex> l(b.lock);
            b.gallery.setPointFinder(std::move(f));
        },
        py::arg("finder"), "Finds the points of frames given without them (None: no finder).");
    g.def(
        "set_descriptor_finder",
        [](GalleryBox& b, std::shared_ptr<msmface::DescriptorFinder> f) {
            std::unique_lock<std::shared_mutex> l(b.lock);
            b.gallery.setDescriptorFinder(std::move(f));
        },
        py::arg("finder"),
        "A gallery of descriptors: finds the descriptors of frames given alone (a\n"
        "msmface.detect.FaceDescriber; None: no finder).");

    py::class_<StreamBox, std::shared_ptr<StreamBox>> s(m, "Stream", R"doc(
One camera's frame cycle over a gallery. push() each frame (with its points, or without: the
finder looks for the face, and without one the frame counts as face-less); the state returned
carries the current ranking once there is one. Streams of one gallery may run on several
threads at once, also while the gallery changes: a stream picks a change up at its next frame.
)doc");
    s.def(py::init([](std::shared_ptr<GalleryBox> gallery, const py::handle& method,
                      const py::object& threshold, const py::object& refreshTime,
                      std::shared_ptr<msmface::PointFinder> finder,
                      std::shared_ptr<msmface::DescriptorFinder> describer) {
              msmface::StreamOptions o;
              o.describer = std::move(describer);
              o.method = methodFrom(method);
              o.threshold = optionalIntArgument(threshold, -1, "threshold");
              o.refreshTime = optionalIntArgument(refreshTime, -2, "refresh_time");
              o.finder = std::move(finder);
              std::optional<msmface::Result<msmface::Stream>> r;
              {
                  py::gil_scoped_release unlocked;
                  std::unique_lock<std::shared_mutex> l(gallery->lock);
                  r.emplace(msmface::Stream::create(gallery->gallery, o));
              }
              return std::make_shared<StreamBox>(gallery, take(std::move(*r)));
          }),
          py::arg("gallery"), py::kw_only(), py::arg("method") = "msm",
          py::arg("threshold") = py::none(), py::arg("refresh_time") = py::none(),
          py::arg("finder") = py::none(), py::arg("describer") = py::none(),
          "A stream over gallery. refresh_time: face-less frames before the input is cleared\n"
          "(None: the engine's). finder: a PointFinder for push(frame) without points;\n"
          "describer: in a gallery of descriptors, a DescriptorFinder for push(frame).");
    s.def(
        "push",
        [](StreamBox& b, const py::handle& frame, const py::handle& points,
           const py::handle& descriptor, const std::string& format) {
            if (frame.is_none() == descriptor.is_none())
                raiseValueError("frame, descriptor: expected one of the two");
            std::optional<msmface::Result<msmface::StreamState>> r;
            if (!descriptor.is_none()) {
                if (!points.is_none())
                    raiseValueError("points: expected None with a descriptor (it is the face)");
                const msmface::FaceDescriptor d = descriptorFromArray(descriptor);
                {
                    py::gil_scoped_release unlocked;
                    std::lock_guard<std::mutex> l(b.lock);
                    r.emplace(b.stream.push(d));
                }
                return take(std::move(*r));
            }
            FrameArg f = frameFromArray(frame, format);
            std::optional<msmface::FacePoints> p;
            if (!points.is_none()) p = pointsFromArray(points);
            {
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> l(b.lock);
                r.emplace(p ? b.stream.push(f.view, *p) : b.stream.push(f.view));
            }
            return take(std::move(*r));
        },
        py::arg("frame") = py::none(), py::arg("points") = py::none(), py::kw_only(),
        py::arg("descriptor") = py::none(), py::arg("format") = "bgr",
        "One camera frame, with the face's points (14, 2) or without (None); or in a gallery of\n"
        "descriptors one frame's face as its descriptor (128,).");
    s.def(
        "push_without_face",
        [](StreamBox& b) {
            std::optional<msmface::Result<msmface::StreamState>> r;
            {
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> l(b.lock);
                r.emplace(b.stream.pushWithoutFace());
            }
            return take(std::move(*r));
        },
        "A frame in which the host found no face (counts toward the refresh time).");
    s.def(
        "reset",
        [](StreamBox& b) {
            std::lock_guard<std::mutex> l(b.lock);
            b.stream.reset();
        },
        "Clears the input: the next face starts a new recognition.");
}

}  // namespace msmpy
