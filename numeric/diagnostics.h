// The one way the engine's code reports a failure in words: through the host's sink
// (<msmface/diagnostics.h>), or, while a capture is active on the calling thread, into that
// capture.
#ifndef MSMFACE_NUMERIC_DIAGNOSTICS_H
#define MSMFACE_NUMERIC_DIAGNOSTICS_H

#include <string>

namespace msm {

// printf-style; the text is delivered as formatted, without a line break added.
void diagnose(const char* format, ...) __attribute__((format(printf, 1, 2)));

// "cannot malloc." framed by line breaks, as the engine has always said it.
void reportNoMemory();

// While it lives, diagnostics of this thread are kept in it instead of reaching the sink, so that
// a caller with a message of its own for the same failure does not show the engine's words to the
// host. Other threads are not affected. Captures nest: the innermost one receives.
class DiagnosticCapture {
  public:
    DiagnosticCapture();
    ~DiagnosticCapture();
    DiagnosticCapture(const DiagnosticCapture&) = delete;
    DiagnosticCapture& operator=(const DiagnosticCapture&) = delete;

    // What was diagnosed on this thread since the capture began.
    const std::string& text() const { return text_; }

  private:
    friend void diagnose(const char* format, ...);
    std::string text_;
    DiagnosticCapture* outer_;
};

}  // namespace msm

#endif  // MSMFACE_NUMERIC_DIAGNOSTICS_H
