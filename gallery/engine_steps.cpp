// The steps that fill a legacy engine with a directory's persons, and that read the core's results.
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
        return dir + ": " + std::to_string(persons.size()) +
               " persons, more than a legacy engine holds";
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

core::Method coreMethod(Method m) {
    switch (m) {
        case Method::SinglePattern:
            return core::Method::SinglePattern;
        case Method::Msm:
            break;
        case Method::CmsmFirstSpace:
            return core::Method::Cmsm;
        case Method::Cmsm:
            return core::Method::CmsmAllSpaces;
    }
    return core::Method::Msm;
}

std::vector<int> scoresOf(const core::Input& input, int persons) {
    std::vector<int> scores(static_cast<std::size_t>(std::max(persons, 0)), -1);
    for (const core::RankedPerson& r : input.ranking())
        if (r.person >= 0 && r.person < persons && r.score >= 0)
            scores[static_cast<std::size_t>(r.person)] = r.score;
    return scores;
}

}  // namespace detail

}  // namespace msmface
