#pragma once

namespace tavo
{

// Something a timer can call.
class ICallback
{
public:
    virtual ~ICallback() = default;
    virtual void call() = 0;
};

// Calls a member function without arguments or result on an object. Does
// nothing while either the object or the function is unset.
template <class T>
class Callback : public ICallback
{
public:
    typedef void (T::*Method)();

    Callback() = default;
    Callback(T* object, Method method) : m_pObject(object), m_method(method) {}

    void set(T* object, Method method)
    {
        m_pObject = object;
        m_method = method;
    }

    void call() override
    {
        if (m_pObject != nullptr && m_method != nullptr)
        {
            (m_pObject->*m_method)();
        }
    }

private:
    T* m_pObject = nullptr;
    Method m_method = nullptr;
};

} // namespace tavo
