// Results of the modern interface (<msmface/gallery.h>, <msmface/detect.h>): a status that is
// either success or one clear message, and a value that comes with such a status. No exception
// crosses the library's boundary; a caller checks ok() before it reads the value.
#ifndef MSMFACE_RESULT_H
#define MSMFACE_RESULT_H

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace msmface {

// What kind of failure a message reports, so that a binding can raise the matching error
// (Python: ValueError for Argument and NotFound, OSError for File and Busy, RuntimeError else).
enum class ErrorKind : int {
    None = 0,
    Argument,  // a value the caller passed is outside what the call accepts
    NotFound,  // a person, file or device that the caller named does not exist
    File,      // a file could not be read, written, or does not hold what it should
    Busy,      // another process holds the dictionary directory's lock (no waiting asked for)
    Internal,  // the engine refused an operation the checks above did not foresee
};

class Status {
  public:
    // Success.
    Status() = default;
    // A failure. requires: message is one line without a trailing newline; kind != None.
    static Status failure(ErrorKind kind, std::string message) {
        Status s;
        s.kind_ = kind == ErrorKind::None ? ErrorKind::Internal : kind;
        s.message_ = std::move(message);
        return s;
    }
    bool ok() const noexcept { return kind_ == ErrorKind::None; }
    explicit operator bool() const noexcept { return ok(); }
    ErrorKind kind() const noexcept { return kind_; }
    // Empty on success; else the one-line message, naming the file or argument and what was
    // expected (the same text the msmface program prints after "msmface: ").
    const std::string& message() const noexcept { return message_; }

  private:
    ErrorKind kind_ = ErrorKind::None;
    std::string message_;
};

// A value or the status that explains why there is none.
template <class T>
class Result {
  public:
    Result(T value) : value_(std::move(value)) {}  // NOLINT: implicit on purpose
    Result(Status failure) : status_(std::move(failure)) {
        if (status_.ok()) status_ = Status::failure(ErrorKind::Internal, "no value and no error");
    }
    bool ok() const noexcept { return status_.ok(); }
    explicit operator bool() const noexcept { return ok(); }
    const Status& status() const noexcept { return status_; }
    const std::string& message() const noexcept { return status_.message(); }

    // requires: ok(). Reading the value of a failure ends the process: it is a bug of the caller.
    T& value() & { return check(), *value_; }
    const T& value() const& { return check(), *value_; }
    T&& value() && { return check(), std::move(*value_); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

  private:
    void check() const {
        if (!value_) std::abort();
    }
    std::optional<T> value_;
    Status status_;
};

}  // namespace msmface

#endif  // MSMFACE_RESULT_H
