// What a host of the legacy engine writes for itself to hold a gallery's persons: the tests run it
// beside the gallery, which shares nothing with the engine, to compare the two.
#ifndef MSMFACE_TESTS_GALLERY_LEGACY_HOST_H
#define MSMFACE_TESTS_GALLERY_LEGACY_HOST_H

#include <deque>
#include <string>
#include <vector>

#include <msmface/FaceRecognition.h>
#include <msmface/gallery.h>

#include "numeric/diagnostics.h"

namespace gallerytest {

// The camera size the engine is made for; an enrolment sets the size of its own frames.
inline constexpr int kLegacyFrameWidth = 320;
inline constexpr int kLegacyFrameHeight = 240;

// The database records an engine points into: HumanID holds a bare char*, so the names live
// here, at addresses that stay put while records are added.
class PersonTable {
  public:
    void clear() {
        records_.clear();
        names_.clear();
    }
    HumanID* add(const msmface::Person& p) {
        names_.push_back(p.name);
        records_.push_back(HumanID{p.id, names_.back().data()});
        return &records_.back();
    }

  private:
    std::deque<std::string> names_;
    std::deque<HumanID> records_;
};

// Empties the engine's database and enters the persons (inside number = index) from dir's files.
// Empty, or why they do not load.
inline std::string LoadPersons(FaceRecognition& engine, const std::string& dir,
                               const std::vector<msmface::Person>& persons, PersonTable& table) {
    IDDatabase& db = *engine.idDatabase;
    db.RemoveAllDictionary(false);
    table.clear();
    db.SetDicPath(dir.c_str());
    if (db.InitIdDictionary(static_cast<int>(persons.size())) != 1)
        return dir + ": more persons than the engine holds";
    for (const msmface::Person& p : persons) db.PushIdDictionary(table.add(p));
    if (persons.empty()) return {};
    msm::DiagnosticCapture quiet;
    return db.ReadIdDictionaries() == 1 ? std::string()
                                         : dir + ": the persons' dictionaries do not load";
}

// Loads dir's constraint list (absolute paths) and projects the engine's persons into it.
inline std::string LoadConstraintSpace(FaceRecognition& engine, const std::string& dir) {
    const std::string list = dir + "/" + msmface::kConstraintListFileName;
    int status = 0;
    {
        msm::DiagnosticCapture quiet;
        status = engine.InitConstraintMSM(list.c_str());
    }
    if (status <= 0) return list + ": does not load (status " + std::to_string(status) + ")";
    engine.Set_recognitionmethod(static_cast<int>(msmface::Method::Cmsm));
    engine.DicConvert();
    return {};
}

}  // namespace gallerytest

#endif  // MSMFACE_TESTS_GALLERY_LEGACY_HOST_H
