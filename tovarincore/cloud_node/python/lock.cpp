#include "lock.h"

#include "builtin_lock.h"
#include "recursion.h"

namespace py {

bool is_released_by_python(Handle lock) { return !is_built_in_lock(lock.ptr()); }

bool acquire(Handle lock, CallSite site)
{
    "release"_s.ptr(); // a lock that is taken must be given back also where there is no memory left
    // Near the recursion limit acquire() itself would fail. It must fail here too: release(), called at the same depth,
    // would, and leave the lock taken for ever.
    NativeCall call;
    if (!call.enter())
        throw Raised{site};
    fast::Answer at_once = acquire_built_in(lock.ptr());
    call.leave();
    return at_once == fast::Answer::yes || lock.method("acquire"_s, site)({"timeout"_k = number(3)}, site).truthy(site);
}

// The recursion limit, which acquire() has passed at the same depth, is not asked again.
void release(Handle lock, CallSite site)
{
    fast::Answer done = release_built_in(lock.ptr());
    if (done == fast::Answer::no)
        throw Raised{site};
    if (done == fast::Answer::unknown)
        lock.method("release"_s, site)(site);
}

} // namespace py
