// Where the engine's own diagnostics go. The legacy interface reports some failures in a few words
// of text (for example "cannot malloc." or that a person's dictionary file cannot be read) besides
// its return values; by default those words are written to standard error exactly as they always
// were. A host that keeps its standard error for itself, or logs elsewhere, sets a sink.
//
// Threads. The sink is called on the thread whose call produced the text, possibly on several
// threads at once: it must be safe to call concurrently. setDiagnosticSink may be called at any
// time from any thread; a text being delivered while the sink is replaced goes to the old or the
// new sink, never to neither. The library itself never changes the process's standard error.
#ifndef MSMFACE_DIAGNOSTICS_H
#define MSMFACE_DIAGNOSTICS_H

#include <functional>
#include <string>

#include <msmface/export.h>

namespace msmface {

// Receives each text as the engine wrote it (line breaks included where the engine writes them;
// several texts do not end in one).
using DiagnosticSink = std::function<void(const std::string& text)>;

// Sends every later diagnostic to sink; an empty sink restores standard error.
MSMFACE_API void setDiagnosticSink(DiagnosticSink sink);

}  // namespace msmface

#endif  // MSMFACE_DIAGNOSTICS_H
