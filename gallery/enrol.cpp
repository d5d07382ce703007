// Changing the persons of a gallery: an enrolment and a removal, each under the directory's lock,
// files first and the registry last.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>

#include "dictionary/person_files.h"
#include "gallery/gallery_impl.h"
#include "io/atomic_file.h"
#include "normalise/face_patterns.h"
#include "numeric/diagnostics.h"
#include "recognition/MSMRecognition.h"
#include "recognition/person_dictionary.h"
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

namespace {

// The picture of the person that goes beside the dictionary: the frame of the second face
// gathered, in grey, as the legacy registration keeps it. Until that face comes it is a black
// colour picture of the first frame's size (none for a size whose picture would not fit).
class EnrolmentPicture {
  public:
    EnrolmentPicture(int width, int height) {
        if (static_cast<int64_t>(width) * height * 24 <= INT32_MAX)
            picture_ = std::make_unique<BasicImageFile>(width, height, 24);
    }
    void take(const BasicImageFile& grey) {
        if (!picture_ || picture_->pixels == nullptr || grey.width != picture_->width ||
            grey.height != picture_->height)
            return;
        std::memcpy(picture_->pixels, grey.pixels,
                    static_cast<std::size_t>(grey.width) * static_cast<std::size_t>(grey.height));
        picture_->bitsPerPixel = 8;
    }
    // A write that fails is noted with the other write failures.
    void write(const std::string& path) {
        if (picture_ && picture_->pixels != nullptr) picture_->WriteBmp(path.c_str());
    }

  private:
    std::unique_ptr<BasicImageFile> picture_;
};

// What an enrolment's arguments must be before the directory is touched.
Status checkEnrolArguments(int id, const std::string& name, const std::vector<Sample>& frames) {
    if (id < 1)
        return fail(ErrorKind::Argument,
                    "id " + std::to_string(id) + ": expected an ID number of 1 or more");
    if (!detail::validKeyName(name))
        return fail(ErrorKind::Argument, "name \"" + name +
                                             "\": expected 1 to 64 letters, digits, '_', '-' "
                                             "or '.', not starting with '.'");
    if (msm::isReservedKeyName(name))
        return fail(ErrorKind::Argument, "name " + msm::reservedKeyNameReason(name));
    if (frames.empty())
        return fail(ErrorKind::Argument, "no frames: expected at least one image with its points");
    return {};
}

// Under the directory's lock: the ID and the name are free, no file of the name is in the way,
// and the directory takes new files.
Status checkNewPerson(const Gallery::Impl& g, int id, const std::string& name) {
    for (const Person& p : g.state->persons) {
        if (p.id == id)
            return fail(ErrorKind::Argument, "id " + std::to_string(id) +
                                                 ": the ID number is taken by \"" + p.name + "\"");
        if (p.name == name)
            return fail(ErrorKind::Argument,
                        "name " + name + ": the key name is taken by ID " + std::to_string(p.id));
    }
    for (const LeftOut& left : g.state->leftOut) {
        const Person& p = left.person;
        if (p.id != id && p.name != name) continue;
        const bool orphan = std::any_of(g.state->orphans.begin(), g.state->orphans.end(),
                                        [&](const Person& o) { return o.id == p.id; });
        return fail(ErrorKind::Argument,
                    (p.id == id ? "id " + std::to_string(id) : "name " + name) + ": " +
                        std::to_string(p.id) + " " + p.name +
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
                             ? std::string(" or repair the directory (repairStore moves it to ") +
                                   kLostAndFoundName + ")"
                             : std::string()));
    return g.checkWritable();
}

// The patterns of the first faces of the frames, as many as a registration takes, and the
// picture of the person. Fails when too few frames give a face or the host interrupts.
Status gatherFaces(Gallery::Impl& g, const std::vector<Sample>& frames,
                   msm::GatheredPatterns& gathered, EnrolmentPicture& picture) {
    std::optional<msm::FacePatterns> faces;
    try {
        faces.emplace();
    } catch (const std::bad_alloc&) {
        return fail(ErrorKind::Internal, "out of memory for an enrolment");
    }
    for (const Sample& s : frames) {
        if (gathered.full()) break;
        if (g.interrupted && g.interrupted()) return fail(ErrorKind::Argument, "interrupted");
        const std::optional<PartsPosition> parts = g.greyFrame(s);
        if (!parts || !faces->normalise(g.image, *parts, g.face.pixels)) continue;
        if (gathered.count() == 1) picture.take(g.image);
        faces->patterns(g.face.pixels, gathered.next());
        gathered.add();
    }
    if (!gathered.full())
        return fail(ErrorKind::Argument,
                    "only " + std::to_string(gathered.count()) + " of " +
                        std::to_string(frames.size()) +
                        " frames gave a face; a registration needs " +
                        std::to_string(msm::kFacesPerRegistration) +
                        " (more frames, or jittered copies of these, make up the number)");
    return {};
}

// The descriptors of the first faces of the frames, as many as an enrolment takes. Fails when
// fewer than the fewest it takes give one, or the host interrupts.
Status gatherDescriptors(Gallery::Impl& g, const std::vector<Sample>& frames,
                         msm::GatheredPatterns& gathered) {
    for (std::size_t k = 0; k < frames.size() && !gathered.full(); ++k) {
        if (g.interrupted && g.interrupted()) return fail(ErrorKind::Argument, "interrupted");
        Result<bool> face = g.descriptorPattern(frames[k], k, frames.size(), gathered.next()[0]);
        if (!face.ok()) return face.status();
        if (*face) gathered.add();
    }
    const int fewest = g.state->settings().minEnrolFrames;
    if (gathered.count() < fewest)
        return fail(ErrorKind::Argument,
                    "only " + std::to_string(gathered.count()) + " of " +
                        std::to_string(frames.size()) + " frames gave a face descriptor; " +
                        std::to_string(fewest) +
                        " needed (a descriptor per sample, or a descriptor finder)");
    return {};
}

// The person's dictionary made from the gathered patterns and written with the records and the
// picture (none for a gallery of descriptors: no face is normalised); on any failure none of the
// person's files is left.
Status writeNewPerson(const Gallery::Impl& g, const std::string& name,
                      const msm::GatheredPatterns& gathered, EnrolmentPicture* picture) {
    const detail::PatternSettings& settings = g.state->settings();
    MtrxChunk records;
    DictChunk dictionaries;
    Status status = msm::buildPersonRecords(gathered.rows(), settings.shape.dimension, records);
    if (!status.ok()) return status;
    // The legacy engine expands with the spectrum kept (its diagnostic names that form); the
    // gallery has no use for the values themselves.
    if (!msm::expandPersonRecords(
             records, settings.shape.channels, settings.minPersonVectors, [](const float*) {},
             dictionaries)
             .ok())
        return fail(ErrorKind::Argument, "the registration of \"" + name +
                                             "\" failed: its faces span too few directions");
    // The writers say only that a file failed; which one and why is kept aside.
    msm::clearWriteFailure();
    const std::string stem = g.dir() + "/" + name;
    status = msm::writePersonFiles(stem, records, dictionaries, msm::kPersonDictionaryVectors);
    if (status.ok() && picture != nullptr) picture->write(stem + ".bmp");
    const std::string writeFailure = msm::lastWriteFailure();
    if (!status.ok() || !writeFailure.empty()) {
        g.removePersonFiles(name);
        return fail(ErrorKind::File, !writeFailure.empty() ? writeFailure : status.message());
    }
    return {};
}

}  // namespace

Status Gallery::enrol(int id, const std::string& name, const std::vector<Sample>& frames) {
    Impl& g = *impl_;
    Status status = checkEnrolArguments(id, name, frames);
    if (status.ok()) status = g.checkSamples(frames);
    if (!status.ok()) return status;
    // From here to the registry's replacement no other process changes the directory, and what
    // another one changed before is read again first: its person stays listed.
    msm::DirectoryLock directoryLock;
    status = g.beginWrite(directoryLock);
    if (status.ok()) status = checkNewPerson(g, id, name);
    if (!status.ok()) return status;

    std::unique_lock<std::shared_mutex> lock(g.state->mutex);
    const detail::PatternSettings& settings = g.state->settings();
    std::optional<msm::GatheredPatterns> gathered;
    try {
        gathered.emplace(settings.shape.channels, settings.shape.dimension, settings.enrolFrames);
    } catch (const std::bad_alloc&) {
        return fail(ErrorKind::Internal, "out of memory for an enrolment");
    }
    if (g.state->kind == PatternKind::Descriptor) {
        status = gatherDescriptors(g, frames, *gathered);
        if (status.ok()) status = writeNewPerson(g, name, *gathered, nullptr);
    } else {
        EnrolmentPicture picture(frames.front().frame.width, frames.front().frame.height);
        status = gatherFaces(g, frames, *gathered, picture);
        if (status.ok()) status = writeNewPerson(g, name, *gathered, &picture);
    }
    if (!status.ok()) return status;
    // The files are complete: the registry names the person last.
    const Person person{id, name};
    std::vector<Person> next = g.state->listed;
    next.push_back(person);
    const std::string error = detail::saveRegistry(g.dir(), next);
    if (!error.empty()) {
        g.removePersonFiles(name);
        return fail(ErrorKind::File, error);
    }
    g.finishWrite();
    g.state->persons.push_back(person);
    g.state->listed.push_back(person);
    status = g.personAdded(person);
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
                    "id " + std::to_string(id) + ": no person with this ID number in " + g.dir());
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
        // fail as well, the person is listed without files: the directory is read again so that
        // the gallery shows that, and another deletion clears it.
        g.removePersonFiles(name);
        error = detail::saveRegistry(g.dir(), next);
        if (!error.empty()) {
            g.load();
            g.finishWrite();
            g.state->generation.fetch_add(1);
            return fail(ErrorKind::File, error);
        }
    }
    // From here on nothing fails: the registry no longer lists the person, and what is in memory
    // follows it without reading the directory again.
    g.removePersonFiles(name);
    g.finishWrite();
    if (index >= 0) {
        g.state->persons.erase(g.state->persons.begin() + index);
    }
    const auto named = [id](const Person& p) { return p.id == id; };
    auto& orphans = g.state->orphans;
    orphans.erase(std::remove_if(orphans.begin(), orphans.end(), named), orphans.end());
    auto& leftOut = g.state->leftOut;
    leftOut.erase(std::remove_if(leftOut.begin(), leftOut.end(),
                                 [id](const LeftOut& p) { return p.person.id == id; }),
                  leftOut.end());
    g.state->listed = std::move(next);
    g.personRemoved(id);
    g.state->generation.fetch_add(1);
    return {};
}
}  // namespace msmface
