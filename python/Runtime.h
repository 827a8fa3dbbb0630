#pragma once

#include <pybind11/pybind11.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace weftpy
{

namespace py = pybind11;

// A failure of the network or the peer; weft.Error at the Python surface.
class WeftError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Raises a Python exception of `type`; for the types pybind11 has no class for.
[[noreturn]] void raise(PyObject* type, const std::string& message);

// A client or server, closed at exit if the program left it open.
class IEndpoint
{
public:
    virtual ~IEndpoint() = default;
    // Without the GIL: waits for the library's threads, whose callbacks take it.
    virtual void close() = 0;
};

// What the module holds for the whole process.
namespace runtime
{

// At import: initialises the library, unless the process did already.
void start();
// At exit, with the GIL: closes every endpoint left open, finishes deferred
// work and releases the library, while library threads may still take the GIL.
void stop();
// Throws WeftError once stop() has begun.
void checkRunning();
// On a thread that has let go of the GIL: once the interpreter is exiting it
// must not take the GIL back (Python ends such a thread by unwinding it
// through frames that cannot be unwound, which aborts the process), so it
// waits here until the process is gone.
void parkIfExiting();
void enroll(const std::shared_ptr<IEndpoint>& endpoint);
// Runs `job` without the GIL on a thread of the module: a library thread
// cannot close its own connection, since closing waits for that thread.
void defer(std::function<void()> job);
// True on a thread that is inside a callback of the library.
bool inCallback();
// False once the interpreter may no longer be entered.
bool pythonAvailable();

// Marks the current thread as inside a callback of the library.
class CallbackScope
{
public:
    CallbackScope();
    ~CallbackScope();
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;
};

// Runs `work` on a thread of the library, which must never see an exception:
// one (only running out of memory can throw there) is reported on stderr and
// the event it was about is dropped.
template <class Work>
void shielded(Work&& work) noexcept
{
    try
    {
        work();
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "weft: an event was dropped: %s\n", error.what());
    }
    catch (...)
    {
        std::fprintf(stderr, "weft: an event was dropped\n");
    }
}

// Runs `work` with the GIL on a thread of the library. A Python exception goes
// to sys.unraisablehook (by default printed with its traceback, naming
// `context`), a C++ one likewise as a RuntimeError: the library's threads
// never see either.
template <class Work>
void withGil(py::handle context, Work&& work) noexcept
{
    if (!pythonAvailable())
    {
        return;
    }
    py::gil_scoped_acquire gil;
    try
    {
        work();
    }
    catch (py::error_already_set& error)
    {
        error.discard_as_unraisable(py::reinterpret_borrow<py::object>(context));
    }
    catch (const std::exception& error)
    {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        PyErr_WriteUnraisable(context.ptr());
    }
    catch (...)
    {
        PyErr_SetString(PyExc_RuntimeError, "unknown C++ exception in a weft callback");
        PyErr_WriteUnraisable(context.ptr());
    }
}

} // namespace runtime

} // namespace weftpy
