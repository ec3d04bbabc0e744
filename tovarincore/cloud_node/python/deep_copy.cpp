#include "deep_copy.h"

#include "globals.h"

namespace py {

void deepcopy_is_bound() { fast::deepcopy_is_bound(global("deepcopy"_s).ptr()); }

Object deep_copy(Handle value, CallSite site)
{
    Object function = global("deepcopy"_s, site);
    if constexpr (fast::is_on)
        if (Object made = fast::deep_copy(function, value, site)) {
            checkpoint(site); // it may have taken long, and what comes next may run a finaliser
            return made;
        }
    return function({value}, site);
}

} // namespace py
