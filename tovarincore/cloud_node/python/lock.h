// Locks, as every part of the module takes them: wait three seconds at the most, release on every path.
#pragma once

#include "builders.h"
#include "globals.h"

namespace py {

// lock.acquire(timeout=3)        its truth
bool acquire(Handle lock, CallSite site = CallSite::here());

// lock.release()
void release(Handle lock, CallSite site = CallSite::here());

// Whether releasing the lock runs Python code.
bool is_released_by_python(Handle lock);

// The end of a locked body: an interrupt that came while native code ran is raised here, also when the body has failed.
// Else it would wait for the next Python code, which is the release of a lock written in Python.
template <class Body> Object interruptible(Handle lock, Body body, CallSiteInFunction here)
{
    try {
        Object result = body();
        if (is_released_by_python(lock))
            fast::collect_what_is_due(); // not in the release
        checkpoint(here);
        return result;
    } catch (const Raised& raised) {
        ExceptBlock failed(raised, here);
        checkpoint(here);
        failed.raise_again();
    }
}

// if lock.acquire(timeout=3): try: return body() finally: lock.release()   else: raise TimeoutError()
//
// What the body names and must outlive the release, as locals do in Python, is declared before.
template <class Body> Object holding(Handle lock, Body body, CallSiteInFunction here = CallSiteInFunction::here())
{
    if (!acquire(lock, here))
        raise(global("TimeoutError"_s, here)(here), here);
    return try_finally([&] { return interruptible(lock, body, here); }, [&] { release(lock, here); }, here);
}

} // namespace py
