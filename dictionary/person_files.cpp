#include "dictionary/person_files.h"

#include "io/atomic_file.h"

namespace msm {

namespace {

msmface::Status notWritten(const std::string& path) {
    const std::string noted = lastWriteFailure();
    return msmface::Status::failure(msmface::ErrorKind::File,
                                    !noted.empty() ? noted : path + ": cannot be written");
}

}  // namespace

msmface::Status writePersonFiles(const std::string& stem, MtrxChunk& records,
                                 const DictChunk& dictionaries, int limit) {
    const std::string matrices = stem + ".mck";
    if (records.Write(matrices.c_str()) != 1) return notWritten(matrices);
    const std::string dictionary = stem + ".dck";
    if (dictionaries.Write(dictionary.c_str(), limit, kDicPrimFloat) != 1)
        return notWritten(dictionary);
    return {};
}

}  // namespace msm
