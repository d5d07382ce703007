#include "numeric/diagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include <msmface/diagnostics.h>

namespace msm {
namespace {

std::mutex sinkMutex;
// Replaced whole, never changed in place: a caller holds its own reference while it delivers.
std::shared_ptr<const msmface::DiagnosticSink> currentSink;

thread_local DiagnosticCapture* innermostCapture = nullptr;

std::string format(const char* fmt, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n <= 0) return {};
    std::vector<char> buffer(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), fmt, args);
    return std::string(buffer.data(), static_cast<std::size_t>(n));
}

}  // namespace

DiagnosticCapture::DiagnosticCapture() : outer_(innermostCapture) {
    innermostCapture = this;
}

DiagnosticCapture::~DiagnosticCapture() {
    innermostCapture = outer_;
}

void diagnose(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const std::string text = format(fmt, args);
    va_end(args);
    if (text.empty()) return;
    if (innermostCapture != nullptr) {
        innermostCapture->text_ += text;
        return;
    }
    std::shared_ptr<const msmface::DiagnosticSink> sink;
    {
        std::lock_guard<std::mutex> lock(sinkMutex);
        sink = currentSink;
    }
    if (sink) {
        (*sink)(text);
        return;
    }
    std::fputs(text.c_str(), stderr);
}

void reportNoMemory() {
    diagnose("\n%s\n", "cannot malloc.");
}

}  // namespace msm

namespace msmface {

void setDiagnosticSink(DiagnosticSink sink) {
    auto next = sink ? std::make_shared<const DiagnosticSink>(std::move(sink)) : nullptr;
    std::lock_guard<std::mutex> lock(msm::sinkMutex);
    msm::currentSink = std::move(next);
}

}  // namespace msmface
