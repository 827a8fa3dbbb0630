#pragma once

#include <tavo/Assert.h>
#include <tavo/Export.h>

namespace tavo
{

// One instance of T per process, reached through the class's static instance
// pointer. T derives from SingletonDll<T>; createInstance() makes and registers it.
//
// The instance pointer must exist once per process even when several shared
// objects use the singleton, so every T declares `extern template class
// SingletonDll<T>` in its header and instantiates it in exactly one source.
template <class T>
class TAVO_EXPORT SingletonDll
{
public:
    // Creates the instance; a second creation is a programming error.
    static T* createInstance()
    {
        TAVO_ASSERT_TEXT(s_pInstance == nullptr, "s_pInstance == __null");
        T* instance = new T();
        s_pInstance = instance;
        return instance;
    }

    // The instance; using the singleton before it exists is a programming error.
    static T* getInstance()
    {
        TAVO_ASSERT(s_pInstance);
        return s_pInstance;
    }

    static bool hasInstance() { return s_pInstance != nullptr; }

    // Deletes the instance if there is one; the pointer is null afterwards.
    static void destroyInstance()
    {
        T* instance = s_pInstance;
        s_pInstance = nullptr;
        delete instance;
    }

protected:
    SingletonDll() = default;

    // An instance deleted directly rather than through destroyInstance() must
    // not stay registered. Compared as addresses: while the base is being
    // destroyed the object is no longer a T.
    virtual ~SingletonDll()
    {
        if (static_cast<const void*>(s_pInstance) == static_cast<const void*>(this))
        {
            s_pInstance = nullptr;
        }
    }

    SingletonDll(const SingletonDll&) = delete;
    SingletonDll& operator=(const SingletonDll&) = delete;

private:
    static T* s_pInstance;
};

template <class T>
T* SingletonDll<T>::s_pInstance = nullptr;

} // namespace tavo
