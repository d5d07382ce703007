// A person's dictionary files: the records (".mck") and the dictionaries (".dck") under one stem.
#ifndef MSMFACE_DICTIONARY_PERSON_FILES_H
#define MSMFACE_DICTIONARY_PERSON_FILES_H

#include <string>

#include <msmface/result.h>

#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"

namespace msm {

// Vectors per channel a person's ".dck" keeps unless a legacy host sets another limit.
inline constexpr int kPersonDictionaryVectors = 256;

// Writes stem.mck, then stem.dck with at most `limit` float vectors per channel (0: all). The
// records go first: a ".dck" beside an older ".mck" would expand into something else on the next
// addition. Fails (File) naming the file that was not written and why, as far as the writer
// noted it since clearWriteFailure(). What was written before the failure stays: the caller knows
// whether it is a new person's to remove or an existing person's to keep.
msmface::Status writePersonFiles(const std::string& stem, MtrxChunk& records,
                                 const DictChunk& dictionaries, int limit);

}  // namespace msm

#endif  // MSMFACE_DICTIONARY_PERSON_FILES_H
