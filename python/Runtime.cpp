#include "Runtime.h"

#include <weft/Init.h>

#include <tavo/LogManager.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace weftpy
{

void raise(PyObject* type, const std::string& message)
{
    PyErr_SetString(type, message.c_str());
    throw py::error_already_set();
}

namespace runtime
{

namespace
{

struct State
{
    std::mutex mutex;
    std::condition_variable wake;
    std::vector<std::weak_ptr<IEndpoint>> endpoints;
    std::deque<std::function<void()>> jobs;
    std::thread worker;
    bool stopping = false;
    bool workerDone = false;
    bool ownsLibrary = false;
};

// Never destroyed: a library thread may still be on its way out when static
// objects go.
State& state()
{
    static State* const s_state = new State();
    return *s_state;
}

std::atomic<bool> g_pythonGone{false};
thread_local int t_callbackDepth = 0;

void work()
{
    State& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    for (;;)
    {
        s.wake.wait(lock, [&s] { return !s.jobs.empty() || s.workerDone; });
        if (s.jobs.empty())
        {
            return;
        }
        std::function<void()> job = std::move(s.jobs.front());
        s.jobs.pop_front();
        lock.unlock();
        job();
        job = nullptr;
        lock.lock();
    }
}

} // namespace

void start()
{
    State& s = state();
    // Another part of the process may have initialised the library; then it
    // also releases it.
    if (!tavo::SingletonDll<tavo::LogManager>::hasInstance())
    {
        weftInit();
        s.ownsLibrary = true;
    }
}

void stop()
{
    State& s = state();
    std::vector<std::shared_ptr<IEndpoint>> open;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.stopping)
        {
            return;
        }
        s.stopping = true;
        for (const std::weak_ptr<IEndpoint>& endpoint : s.endpoints)
        {
            if (std::shared_ptr<IEndpoint> alive = endpoint.lock())
            {
                open.push_back(alive);
            }
        }
        s.endpoints.clear();
    }
    {
        py::gil_scoped_release release;
        for (const std::shared_ptr<IEndpoint>& endpoint : open)
        {
            endpoint->close();
        }
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            s.workerDone = true;
        }
        s.wake.notify_all();
        if (s.worker.joinable())
        {
            s.worker.join();
        }
    }
    // Endpoints are dropped with the GIL: their callbacks are Python objects.
    open.clear();
    g_pythonGone = true;
    if (s.ownsLibrary)
    {
        weftDeinit();
    }
}

void checkRunning()
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.stopping)
    {
        throw WeftError("weft has shut down: the interpreter is exiting");
    }
}

void parkIfExiting()
{
    State& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.stopping)
        {
            return;
        }
    }
    for (;;)
    {
        std::this_thread::sleep_for(std::chrono::hours(1));
    }
}

void enroll(const std::shared_ptr<IEndpoint>& endpoint)
{
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::erase_if(s.endpoints, [](const std::weak_ptr<IEndpoint>& e) { return e.expired(); });
    s.endpoints.push_back(endpoint);
}

void defer(std::function<void()> job)
{
    State& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.workerDone)
        {
            if (!s.worker.joinable())
            {
                s.worker = std::thread(work);
            }
            s.jobs.push_back(std::move(job));
            s.wake.notify_all();
            return;
        }
    }
    // After exit every endpoint is closed; what is left to do can be done
    // here, except on a library thread, which would wait for itself.
    if (!inCallback())
    {
        job();
    }
}

bool inCallback()
{
    return t_callbackDepth > 0;
}

bool pythonAvailable()
{
    return !g_pythonGone && Py_IsInitialized() != 0;
}

CallbackScope::CallbackScope()
{
    ++t_callbackDepth;
}

CallbackScope::~CallbackScope()
{
    --t_callbackDepth;
}

} // namespace runtime

} // namespace weftpy
