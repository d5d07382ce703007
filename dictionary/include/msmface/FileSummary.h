// A readable description of the engine's data files, for tools that show a user what a
// dictionary directory holds without linking the internal containers.
//
// Threads. Works only on its arguments: any number of threads may call it at once.
#ifndef MSMFACE_FILESUMMARY_H
#define MSMFACE_FILESUMMARY_H

#include <msmface/export.h>

#ifdef __cplusplus
extern "C" {
#endif

// Reads the file at path and describes it in a few lines of text: its kind, the sets, vectors
// and matrices it holds with their sizes, dates and a few leading values. Recognised by their
// first bytes: dictionary chunks ("DCK", ".dck" and ".dckev"), matrix chunks ("MCK", ".mck"),
// vector files ("CSF"/"CSD") and matrix files ("COV"/"MOV"); the text forms of the last two by a
// name ending in ".cs" or in ".cov"/".mov" (any case).
//
// Returns the length of the whole description (without its terminating zero) when the file was
// read, or -(length) - 1 of a one-line reason when it was not (missing, unreadable, of another
// kind, truncated or malformed). At most capacity - 1 characters and a terminating zero are
// stored into text; call again with a larger buffer when the result does not fit. text may be
// null when capacity is 0.
MSMFACE_API int msmface_describeFile(const char* path, char* text, int capacity);

#ifdef __cplusplus
}
#endif

#endif  // MSMFACE_FILESUMMARY_H
