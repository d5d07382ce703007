// Ctrl-C during a long call. The library asks between frames whether to stop
// (msmface::OpenOptions::interrupted); the answer comes from Python's signal handlers, which run
// only when the interpreter gets the chance, and a call that went through thousands of frames with
// the GIL released would otherwise hold a KeyboardInterrupt back until it ends.
#ifndef MSMFACE_PYTHON_INTERRUPT_H
#define MSMFACE_PYTHON_INTERRUPT_H

#include <pybind11/pybind11.h>

#include <functional>

namespace msmpy {

// The check for a call's frames: every few frames it takes the GIL and runs the pending signal
// handlers. A handler that raises (SIGINT's KeyboardInterrupt) stops the call; its exception stays
// set on this thread until the call has returned, where raiseIfInterrupted throws it. Only the main
// thread runs handlers: elsewhere this never stops a call.
inline std::function<bool()> pythonInterruptCheck() {
    // A frame takes a millisecond or two: a Ctrl-C is seen within some ten milliseconds, and the
    // GIL is not fought over at every frame.
    constexpr unsigned kFramesBetweenChecks = 8;
    return [calls = 0u]() mutable {
        if (++calls % kFramesBetweenChecks != 0) return false;
        pybind11::gil_scoped_acquire gil;
        return PyErr_CheckSignals() != 0;
    };
}

// Throws what a signal handler raised during the call just returned. requires: the GIL is held.
inline void raiseIfInterrupted() {
    if (PyErr_Occurred() != nullptr) throw pybind11::error_already_set();
}

}  // namespace msmpy

#endif  // MSMFACE_PYTHON_INTERRUPT_H
