// Changing the persons of a gallery: an enrolment and a removal, each under the directory's lock,
// files first and the registry last.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>

#include "gallery/gallery_impl.h"
#include "io/atomic_file.h"
#include "numeric/diagnostics.h"
#include "store/registry.h"
#include "store/store_files.h"

namespace msmface {

using detail::exists;
using detail::fail;

Status Gallery::Impl::checkWritable() const {
    const std::string probe = dir() + "/.msmface-write-check" + std::to_string(::getpid());
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return fail(ErrorKind::File, dir() + ": the dictionary directory is not writable (" +
                                         std::strerror(errno) + ")");
    ::close(fd);
    ::unlink(probe.c_str());
    return {};
}

void Gallery::Impl::removePersonFiles(const std::string& name) const {
    // The constraint space's files are never a person's, whatever the registry says.
    if (msm::isReservedKeyName(name)) return;
    for (const char* ext : msm::kPersonExtensions) ::unlink((dir() + "/" + name + ext).c_str());
}

std::string Gallery::Impl::existingPersonFile(const std::string& name) const {
    for (const char* ext : msm::kPersonExtensions) {
        const std::string path = dir() + "/" + name + ext;
        struct stat st {};
        // lstat: a link, a folder or a pipe of that name is in the way as much as a file is.
        if (::lstat(path.c_str(), &st) == 0) return path;
    }
    return {};
}

Status Gallery::enrol(int id, const std::string& name, const std::vector<Sample>& frames) {
    Impl& g = *impl_;
    if (id < 1)
        return fail(ErrorKind::Argument,
                    "--id " + std::to_string(id) + ": expected an ID number of 1 or more");
    if (!detail::validKeyName(name))
        return fail(ErrorKind::Argument, "--name \"" + name +
                                             "\": expected 1 to 64 letters, digits, '_', '-' "
                                             "or '.', not starting with '.'");
    if (msm::isReservedKeyName(name))
        return fail(ErrorKind::Argument, "--name " + msm::reservedKeyNameReason(name));
    if (frames.empty())
        return fail(ErrorKind::Argument, "no frames: expected at least one image with its points");
    Status status = g.checkSamples(frames);
    if (!status.ok()) return status;
    // From here to the registry's replacement no other process changes the directory, and what
    // another one changed before is read again first: its person stays listed.
    msm::DirectoryLock directoryLock;
    status = g.beginWrite(directoryLock);
    if (!status.ok()) return status;
    for (const Person& p : g.state->persons) {
        if (p.id == id)
            return fail(ErrorKind::Argument, "--id " + std::to_string(id) +
                                                 ": the ID number is taken by \"" + p.name + "\"");
        if (p.name == name)
            return fail(ErrorKind::Argument,
                        "--name " + name + ": the key name is taken by ID " + std::to_string(p.id));
    }
    for (const LeftOut& left : g.state->leftOut) {
        const Person& p = left.person;
        if (p.id != id && p.name != name) continue;
        const bool orphan = std::any_of(g.state->orphans.begin(), g.state->orphans.end(),
                                        [&](const Person& o) { return o.id == p.id; });
        return fail(ErrorKind::Argument,
                    "--id/--name: " + std::to_string(p.id) + " " + p.name +
                        (orphan ? " is listed without its files"
                                : " is listed but not loaded (" + left.reason + ")") +
                        "; delete it first");
    }
    // A file of this name that no entry lists is the user's (a person taken out of the registry
    // by hand, a picture put there): the enrolment would replace it, and a failed one remove it.
    const std::string foreign = g.existingPersonFile(name);
    // Without a registry nothing tells a killed enrolment's files from a host's person: only
    // with one does a repair move them.
    if (!foreign.empty())
        return fail(ErrorKind::File,
                    foreign + ": exists, and no person of the registry names it; move it away" +
                        (exists(detail::registryPath(g.dir()))
                             ? std::string(" or run \"msmface check --repair\" (which moves it "
                                           "to ") +
                                   kLostAndFoundName + ")"
                             : std::string()));
    status = g.checkWritable();
    if (!status.ok()) return status;

    std::unique_lock<std::shared_mutex> lock(g.state->mutex);
    FaceRecognition& e = *g.engine;
    // The engine's writers say only that a file failed; which one and why is kept aside.
    msm::clearWriteFailure();
    if (e.idDatabase->SetNewKeyname(name.c_str()) != 1)
        return fail(ErrorKind::Internal, "the engine refused the key name");
    e.image_size_set(frames.front().frame.width, frames.front().frame.height);
    e.Set_RecogORRegist(2);
    e.Reset_gather_counter();
    int gathered = 0;
    bool interrupted = false;
    for (const Sample& s : frames) {
        if (e.Get_RecogORRegist() != 2) break;
        if (g.interrupted && g.interrupted()) {
            interrupted = true;
            break;
        }
        if (!g.crop(s)) continue;
        ++gathered;
        e.FrameProcess(2);
    }
    const bool ran = !interrupted && e.Get_RecogORRegist() != 2;
    const bool ok = ran && e.Get_RegistCondition();
    e.Set_RecogORRegist(1);
    // The picture's writer reports no failure of its own (hosts of the engine rely on that); a
    // gallery keeps a person only with all files complete.
    const std::string writeFailure = msm::lastWriteFailure();
    if (!ok || !writeFailure.empty()) {
        e.idDatabase->FreeNewKeyname();
        g.removePersonFiles(name);
        if (!writeFailure.empty()) return fail(ErrorKind::File, writeFailure);
        if (interrupted) return fail(ErrorKind::Argument, "interrupted");
        if (!ran)
            return fail(ErrorKind::Argument,
                        "only " + std::to_string(gathered) + " of " +
                            std::to_string(frames.size()) +
                            " frames gave a face; a registration needs " +
                            std::to_string(e.Get_DICACQUISITIONNUM()) +
                            " (add --copies and --jitter to make more from few)");
        return fail(ErrorKind::Argument, "the registration of \"" + name +
                                             "\" failed: its faces span too few directions");
    }
    std::vector<Person> next = g.state->listed;
    next.push_back(Person{id, name});
    const std::string error = detail::saveRegistry(g.dir(), next);
    if (!error.empty()) {
        e.idDatabase->FreeNewKeyname();
        g.removePersonFiles(name);
        return fail(ErrorKind::File, error);
    }
    g.finishWrite();
    g.state->persons.push_back(Person{id, name});
    g.state->listed.push_back(Person{id, name});
    g.loadedPersons.push_back(Person{id, name});
    e.idDatabase->AddNewDictionary(g.table.add(Person{id, name}));
    e.idDatabase->ReadIdDictionaries();
    if (g.constraintLoaded) {
        // The registration moved the space itself; the engine projects only under the
        // all-spaces method, whichever method the last recognition used.
        e.Set_recognitionmethod(static_cast<int>(Method::Cmsm));
        e.DicConvert();
    }
    status = g.personAdded(Person{id, name});
    g.state->generation.fetch_add(1);
    return status;
}

Status Gallery::remove(int id) {
    Impl& g = *impl_;
    msm::DirectoryLock directoryLock;
    Status status = g.beginWrite(directoryLock);
    if (!status.ok()) return status;
    const int index = g.findPerson(id);
    // A person left out (no files, files that do not load) is removed all the same.
    int orphan = -1;
    for (std::size_t i = 0; i < g.state->leftOut.size(); ++i)
        if (g.state->leftOut[i].person.id == id) orphan = static_cast<int>(i);
    if (index < 0 && orphan < 0)
        return fail(ErrorKind::NotFound,
                    "--id " + std::to_string(id) + ": no person with this ID number in " + g.dir());
    status = g.checkWritable();
    if (!status.ok()) return status;

    std::unique_lock<std::shared_mutex> lock(g.state->mutex);
    const std::string name = index >= 0
                                 ? g.state->persons[static_cast<std::size_t>(index)].name
                                 : g.state->leftOut[static_cast<std::size_t>(orphan)].person.name;
    std::vector<Person> next;
    for (const Person& p : g.state->listed)
        if (p.id != id) next.push_back(p);
    std::string error = detail::saveRegistry(g.dir(), next);
    if (!error.empty()) {
        // The registry's replacement needs room for its temporary, which on a full disk only the
        // person's own files can give: they go first, and the entry is written again. Should that
        // fail as well, the person is listed without files, which a load leaves out and another
        // deletion clears.
        g.removePersonFiles(name);
        error = detail::saveRegistry(g.dir(), next);
    }
    g.removePersonFiles(name);
    // The engine leaves the record table to its host: start again from the files.
    g.engine = Impl::newEngine();
    g.table.clear();
    g.constraintLoaded = false;
    if (!error.empty()) {
        g.load();
        g.finishWrite();
        g.state->generation.fetch_add(1);
        return fail(ErrorKind::File, error);
    }
    status = g.load();
    if (!status.ok()) {
        // The person is gone from the registry and the disk whatever else does not load now.
        if (index >= 0) {
            g.state->persons.erase(g.state->persons.begin() + index);
        }
        g.loadedPersons = g.state->persons;
        auto& orphans = g.state->orphans;
        orphans.erase(std::remove_if(orphans.begin(), orphans.end(),
                                     [id](const Person& p) { return p.id == id; }),
                      orphans.end());
        auto& leftOut = g.state->leftOut;
        leftOut.erase(std::remove_if(leftOut.begin(), leftOut.end(),
                                     [id](const LeftOut& p) { return p.person.id == id; }),
                      leftOut.end());
        g.state->listed = std::move(next);
    }
    g.finishWrite();
    g.state->generation.fetch_add(1);
    return status;
}
}  // namespace msmface
