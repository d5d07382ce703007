// The steps that fill a legacy engine with a directory's persons and read its results.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>

#include <msmface/FileSummary.h>

#include "gallery/gallery_impl.h"
#include "numeric/diagnostics.h"

namespace msmface {

namespace detail {

std::string loadPersons(FaceRecognition& engine, const std::string& dir,
                        const std::vector<Person>& persons, PersonTable& table) {
    IDDatabase& db = *engine.idDatabase;
    db.RemoveAllDictionary(false);
    table.clear();
    db.SetDicPath(dir.c_str());
    if (db.InitIdDictionary(static_cast<int>(persons.size())) != 1)
        return dir + ": more persons than the engine holds (" + std::to_string(kMaxLoadedPersons) +
               ")";
    for (const Person& p : persons) db.PushIdDictionary(table.add(p));
    if (persons.empty()) return {};
    int read = 0;
    {
        // Our own message names the file; the engine's words would only repeat it.
        msm::DiagnosticCapture quiet;
        read = db.ReadIdDictionaries();
    }
    if (read == 1) return {};
    for (const Person& p : persons) {
        const std::string path = dir + "/" + p.name + ".dck";
        char reason[512];
        if (msmface_describeFile(path.c_str(), reason, sizeof reason) < 0)
            return std::string(reason);
    }
    return dir + ": the persons' dictionaries do not load";
}

int engineMethod(Method m) {
    switch (m) {
        case Method::SinglePattern:
        case Method::Msm:
        case Method::CmsmFirstSpace:
        case Method::Cmsm:
            return static_cast<int>(m);
    }
    return -1;
}

std::vector<int> currentScores(FaceRecognition& engine, int persons) {
    std::vector<int> scores(static_cast<std::size_t>(std::max(persons, 0)), -1);
    const RECOGRESULT* r = engine.Get_ResultRecog();
    const int length = std::max(persons, 10);
    for (int i = 0; r != nullptr && i < length; ++i) {
        const int who = r[i].id;
        if (who < 0 || who >= persons || r[i].similarity < 0) continue;
        scores[static_cast<std::size_t>(who)] = r[i].similarity;
    }
    return scores;
}

}  // namespace detail

}  // namespace msmface
