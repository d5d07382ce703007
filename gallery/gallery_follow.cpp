// How the gallery's recognition follows a change of its directory's persons or constraint space.
// The recognition here is the legacy engine the gallery holds: a person added is read into it, a
// person removed is dropped from its tables, and a rebuilt space is loaded into it.
#include <algorithm>

#include "gallery/gallery_impl.h"
#include "numeric/diagnostics.h"

namespace msmface {

Status Gallery::Impl::personAdded(const Person& p) {
    FaceRecognition& e = *engine;
    if (e.idDatabase->AddNewDictionary(table.add(p)) != 1) {
        // The engine is full: the directory read again leaves the person out, and says why.
        engine = newEngine();
        table.clear();
        constraintLoaded = false;
        return load(true);
    }
    loadedPersons.push_back(p);
    e.idDatabase->ReadIdDictionaries();
    if (constraintLoaded) {
        // Projected into the space as it is; the engine projects only under the all-spaces
        // method, whichever method the last recognition used.
        e.Set_recognitionmethod(static_cast<int>(Method::Cmsm));
        e.DicConvert();
    }
    return {};
}

void Gallery::Impl::personRemoved(int id) {
    const auto at = std::find_if(loadedPersons.begin(), loadedPersons.end(),
                                 [id](const Person& p) { return p.id == id; });
    if (at == loadedPersons.end()) return;
    FaceRecognition& e = *engine;
    // The space stays as it was built until the next rebuild: the engine must not regenerate it
    // without the person.
    const bool incremental = e.Get_IncrementalCMSMspaceUpdate();
    e.Set_IncrementalCMSMspaceUpdate(false);
    {
        msm::DiagnosticCapture quiet;
        e.Deletion(static_cast<int>(at - loadedPersons.begin()), false);
    }
    e.Set_IncrementalCMSMspaceUpdate(incremental);
    loadedPersons.erase(at);
}

Status Gallery::Impl::constraintRebuilt() {
    constraintLoaded = false;
    return loadConstraint();
}

}  // namespace msmface
